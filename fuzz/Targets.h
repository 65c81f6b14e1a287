// SPDX-License-Identifier: MIT

#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

/// What fuzzers are made of. A target is a function in a source file of this folder, and its corpus a folder
/// of its name:
///
///     FUZZ_TARGET(query) {
///         ... input ...
///         Check(again == text, "what was written reads as the same");
///     }
///
/// Each takes any bytes and ends the process when something is not as it must be. Entry.cpp makes a fuzzer of
/// them, RunFiles.cpp a test.
namespace fuzz {

struct Target {
    Target(const char* targetName, void (*function)(const std::string&));

    const char* name;
    void (*run)(const std::string& input);
    const Target* next;

    /// The first of all.
    static const Target* s_first;
};

inline const Target* Target::s_first = nullptr;

inline Target::Target(const char* targetName, void (*function)(const std::string&))
    : name(targetName), run(function), next(s_first) {
    s_first = this;
}

inline void Check(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "fuzz: not so: %s\n", what);
        std::abort();
    }
}

}  // namespace fuzz

#define FUZZ_TARGET(name)                                            \
    static void Fuzz_##name(const std::string& input);               \
    static const ::fuzz::Target s_target_##name(#name, Fuzz_##name); \
    static void Fuzz_##name(const std::string& input)
