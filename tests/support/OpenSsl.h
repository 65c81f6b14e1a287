// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include "support/RunToEnd.h"

namespace zarip::test {

/// Runs `openssl` with arguments of a shell; its exit status, and what it printed in `output`.
inline int RunOpenSsl(const std::string& arguments, std::string* output = nullptr) {
    const osa::Process::Result result = RunToEnd("sh", {"-c", "openssl " + arguments + " 2>&1"});
    if (output != nullptr) {
        *output = result.output;
    }
    return result.status;
}

}  // namespace zarip::test
