// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

#include <zarip/core/IAllocator.h>

namespace zarip::core {

/// A ring of memory for objects that are freed roughly in the order in which they were allocated, such as
/// media frames. Each allocation follows the previous one and is contiguous. Memory may be freed in any
/// order, but it becomes available in the order of allocation: while one allocation is kept, memory that was
/// allocated after it cannot be reused.
///
/// In the statistics, `used` is the number of bytes from the oldest allocation that is still in use to the
/// newest.
class ZARIP_EXPORT RingAllocator : public IAllocator {
public:
    /// Allocates the ring. Throws `AllocationException` if there is not enough memory.
    /// @param size  the size of the ring in bytes, at least 1.
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
