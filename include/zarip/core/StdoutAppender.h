// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/core/FileAppender.h>

namespace zarip::core {

/// A `FileAppender` on the process's standard output, which stays open.
class ZARIP_EXPORT StdoutAppender : public FileAppender {
public:
    StdoutAppender();
    ~StdoutAppender() override;
};

}  // namespace zarip::core
