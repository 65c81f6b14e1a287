// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>

#include <zarip/osa/Export.h>

namespace zarip::core {

/// Where objects and buffers come from. *Thread-safe*.
///
/// Misuse is found in every build: `Free` throws `AllocatorException` for a pointer that the allocator did
/// not hand out or that was freed before, and then changes nothing.
class ZARIP_EXPORT IAllocator {
public:
    struct Statistics {
        std::size_t capacity;       ///< bytes that can be handed out; 0 where there is no limit
        std::size_t used;           ///< bytes handed out now, as the allocator counts them
        std::size_t peak;           ///< the most that `used` has been
        std::size_t count;          ///< allocations that are not freed yet
        unsigned long long failed;  ///< allocations that found no room
    };

    virtual ~IAllocator();

    /// Memory that is the caller's until it goes to `Free`.
    /// @param size  in bytes; 0 counts as 1.
    /// @param alignment  a power of two.
    /// Throws `AllocationException` "out of memory: ..." when there is no room and `AllocatorException`
    /// "invalid alignment" or "invalid size" for what this allocator never serves.
    virtual void* Allocate(std::size_t size, std::size_t alignment = alignof(std::max_align_t)) = 0;

    /// Takes memory back; does nothing for null.
    virtual void Free(void* memory) = 0;

    virtual Statistics GetStatistics() const = 0;
};

}  // namespace zarip::core
