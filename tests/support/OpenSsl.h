// SPDX-License-Identifier: MIT

#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace zarip::test {

/// Runs `openssl` with arguments of a shell; its exit status, and what it printed in `output`.
inline int RunOpenSsl(const std::string& arguments, std::string* output = nullptr) {
    std::string text;
    std::FILE* const pipe = ::popen(("openssl " + arguments + " 2>&1").c_str(), "re");
    if (pipe == nullptr) {
        return -1;
    }
    char buffer[4096];
    while (const std::size_t count = std::fread(buffer, 1, sizeof buffer, pipe)) {
        text.append(buffer, count);
    }
    const int status = ::pclose(pipe);
    if (output != nullptr) {
        *output = text;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace zarip::test
