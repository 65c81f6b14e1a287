// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/core/FileAppender.h>

namespace zarip::core {

/// A `FileAppender` for the standard output of the process, which it does not close.
class ZARIP_EXPORT StdoutAppender : public FileAppender {
public:
    StdoutAppender();
    ~StdoutAppender() override;
};

}  // namespace zarip::core
