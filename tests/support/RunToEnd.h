// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <vector>

#include "zarip/osa/Process.h"

namespace zarip::test {

/// Runs a program without a time limit, because a machine may be slow.
inline osa::Process::Result RunToEnd(const std::string& program, const std::vector<std::string>& arguments,
                                     osa::Process::RunOptions options = {}) {
    options.timeoutMs = osa::kWaitForEver;
    return osa::Process::Run(program, arguments, options);
}

}  // namespace zarip::test
