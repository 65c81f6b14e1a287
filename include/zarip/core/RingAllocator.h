// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

#include <zarip/core/IAllocator.h>

namespace zarip::core {

/// A ring of memory for objects that come and go roughly in order, such as media frames. Each allocation
/// follows the one before and never wraps around the end. Memory may be freed in any order, but it becomes
/// available in the order of allocation: an allocation that is kept for long blocks those after it.
///
/// In the statistics `used` counts from the oldest allocation that is still in use to the newest.
class ZARIP_EXPORT RingAllocator : public IAllocator {
public:
    /// @param size  of the ring in bytes, at least 1. Throws `AllocationException` if there is no memory.
    explicit RingAllocator(std::size_t size);
    RingAllocator(const RingAllocator&) = delete;
    RingAllocator& operator=(const RingAllocator&) = delete;

    /// Frees all memory, also what is in use.
    ~RingAllocator() override;

    /// Serves alignments up to a page, 4096.
    void* Allocate(std::size_t size, std::size_t alignment = alignof(std::max_align_t)) override;
    void Free(void* memory) override;
    Statistics GetStatistics() const override;

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::core
