// SPDX-License-Identifier: MIT

#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

/// The parts of a fuzzer. A target is a function in a source file of this folder, and its corpus is a folder
/// with its name:
///
///     FUZZ_TARGET(query) {
///         ... input ...
///         Check(again == text, "what was written reads as the same");
///     }
///
/// A target takes any bytes and ends the process if a check fails. Entry.cpp makes a fuzzer of the targets,
/// and RunFiles.cpp makes a test of them.
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
