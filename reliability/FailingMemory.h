// SPDX-License-Identifier: MIT

#pragma once

/// Makes an allocation fail: by `new`, by malloc and so by libdbus, libxml2, libgcrypt and the C library. The
/// program's malloc counts the blocks of the whole process. Sanitizers bring an allocator of their own, so
/// there is none of this in builds with them.
namespace zarip::reliability {

class FailingMemory {
public:
    enum class Threads { kCalling, kOthers };

    static bool IsSupported();

    /// The n-th allocation from now on fails; those that follow succeed. With the environment variable
    /// ZARIP_TRACE set to n the stack of the failure is printed.
    static void FailAt(long n, Threads threads);
    /// Ends that; true if the allocation has failed.
    static bool End();

    /// How many blocks are allocated.
    static long GetBlocks();
};

}  // namespace zarip::reliability
