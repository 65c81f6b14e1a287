// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/core/FileAppender.h>

namespace zarip::core {

/// A `FileAppender` on the process's standard error, which stays open.
class ZARIP_EXPORT StderrAppender : public FileAppender {
public:
    StderrAppender();
    ~StderrAppender() override;
};

}  // namespace zarip::core
