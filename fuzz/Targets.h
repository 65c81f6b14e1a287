// SPDX-License-Identifier: MIT

#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

/// Each target takes any bytes and ends the process when something is not as it must be. Entry.cpp makes a
/// fuzzer of one of them, RunFiles.cpp a test of all.
namespace fuzz {

void Request(const std::string& input);
void Response(const std::string& input);
void Upnp(const std::string& input);
void Url(const std::string& input);
void Query(const std::string& input);
void Ini(const std::string& input);
void Json(const std::string& input);
void Xml(const std::string& input);
void Key(const std::string& input);

inline void Check(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "fuzz: not so: %s\n", what);
        std::abort();
    }
}

}  // namespace fuzz
