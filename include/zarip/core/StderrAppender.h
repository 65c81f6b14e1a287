// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/core/FileAppender.h>

namespace zarip::core {

/// A `FileAppender` for the standard error of the process, which it does not close.
class ZARIP_EXPORT StderrAppender : public FileAppender {
public:
    StderrAppender();
    ~StderrAppender() override;
};

}  // namespace zarip::core
