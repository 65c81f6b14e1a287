// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>

#include <zarip/osa/Export.h>

namespace zarip::core {

/// Provides memory for objects and buffers. *Thread-safe*.
///
/// Misuse is detected in every build: `Free` throws `AllocatorException` for a pointer that is not of this
/// allocator or that was freed before, and changes nothing in this case.
class ZARIP_EXPORT IAllocator {
public:
    struct Statistics {
        std::size_t capacity;       ///< bytes that can be allocated; 0 for no limit
        std::size_t used;           ///< bytes allocated now, as the allocator counts them
        std::size_t peak;           ///< the most that `used` has been
        std::size_t count;          ///< allocations that are not freed yet
        unsigned long long failed;  ///< allocations that failed for lack of memory
    };

    virtual ~IAllocator();

    /// Returns memory that belongs to the caller until it is passed to `Free`. Throws `AllocationException`
    /// "out of memory: ..." if there is not enough memory now, and `AllocatorException` "invalid alignment"
    /// or "invalid size" for a request that this allocator can never serve.
    /// @param size  in bytes; 0 counts as 1.
    /// @param alignment  a power of two.
    virtual void* Allocate(std::size_t size, std::size_t alignment = alignof(std::max_align_t)) = 0;

    /// Frees memory that `Allocate` has returned. Does nothing for null.
    virtual void Free(void* memory) = 0;

    virtual Statistics GetStatistics() const = 0;
};

}  // namespace zarip::core
