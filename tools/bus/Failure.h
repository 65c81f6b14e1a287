// SPDX-License-Identifier: MIT

#pragma once

#include <stdexcept>
#include <string>

namespace bus {

enum ExitStatus { kDone = 0, kFailed = 1, kUsageError = 2, kNotThere = 3, kTimedOut = 4 };

/// An error that ends the program, with its exit status.
struct Failure : std::runtime_error {
    Failure(ExitStatus status, const std::string& text) : std::runtime_error(text), exitStatus(status) {}
    ExitStatus exitStatus;
};

}  // namespace bus
