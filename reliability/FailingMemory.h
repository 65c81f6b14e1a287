// SPDX-License-Identifier: MIT

#pragma once

/// Makes an allocation fail: by `new`, by malloc and so by libdbus, libxml2, libgcrypt and the C library. The
/// program's malloc counts the blocks of the whole process. Sanitizers have an allocator of their own, so
/// builds with them do not support this (`IsSupported`).
namespace zarip::reliability {

class FailingMemory {
public:
    enum class Threads { kCalling, kOthers };

    static bool IsSupported();

    /// Makes the n-th allocation from now on fail. The allocations after it succeed. With the environment
    /// variable ZARIP_TRACE set to n the stack of the failure is printed.
    static void FailAt(long n, Threads threads);
    /// Ends this. Returns whether an allocation has failed.
    static bool End();

    /// Returns the number of allocated blocks.
    static long GetBlocks();
};

}  // namespace zarip::reliability
