// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

#include <zarip/core/IAllocator.h>

namespace zarip::core {

/// A ring of memory for what comes and goes roughly in order, such as media frames: each allocation stands
/// behind the one before, and never wraps around the end. Memory may be freed in any order and returns in
/// the order of allocation: one that is kept for long keeps all behind it.
///
/// In the statistics `used` counts from the oldest allocation that is still out to the newest.
class ZARIP_EXPORT RingAllocator : public IAllocator {
public:
    /// @param size  of the ring in bytes, at least 1. Throws `AllocationException` when it is not to be had.
    explicit RingAllocator(std::size_t size);
    RingAllocator(const RingAllocator&) = delete;
    RingAllocator& operator=(const RingAllocator&) = delete;

    /// All memory ends with it, what is out included.
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
