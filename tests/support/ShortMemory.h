// SPDX-License-Identifier: MIT

#pragma once

namespace zarip::test {

/// For the length of a scope every allocation by `new` fails on the threads of one name. Only in builds
/// without sanitizers, which bring an allocator of their own.
class ShortMemory {
public:
    static bool IsSupported();

    /// @param thread  the name that the kernel shows; must outlive the scope.
    explicit ShortMemory(const char* thread);
    ShortMemory(const ShortMemory&) = delete;
    ShortMemory& operator=(const ShortMemory&) = delete;
    ~ShortMemory();

    /// How many allocations have failed.
    static int GetFailures();
};

}  // namespace zarip::test
