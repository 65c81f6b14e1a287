// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

#include <zarip/core/IAllocator.h>

namespace zarip::core {

/// Allocates blocks of one size from memory that is reserved once. Allocating and freeing take no lock and a
/// bounded time, and memory does not fragment. Use it for messages, packets and nodes of threads that must
/// not wait.
///
/// A thread that allocates prefers the blocks that it has freed itself. In the statistics, `used` counts
/// whole blocks, and `peak` is the largest amount that was ever needed.
class ZARIP_EXPORT PoolAllocator : public IAllocator {
public:
    /// Reserves the memory. Throws `AllocationException` if there is not enough memory, and
    /// `AllocatorException` for other arguments than these.
    /// @param blockSize  in bytes; rounded up to a multiple of `alignment`.
    /// @param blockCount  1 to 2^31 - 1.
    /// @param alignment  a power of two.
    PoolAllocator(std::size_t blockSize, std::size_t blockCount,
                  std::size_t alignment = alignof(std::max_align_t));
    PoolAllocator(const PoolAllocator&) = delete;
    PoolAllocator& operator=(const PoolAllocator&) = delete;

    /// Frees all blocks, also those that are in use.
    ~PoolAllocator() override;

    /// Serves sizes up to the block size and alignments up to that of the pool.
    void* Allocate(std::size_t size, std::size_t alignment = alignof(std::max_align_t)) override;
    void Free(void* memory) override;

    /// Checks every block, so its time grows with their number.
    Statistics GetStatistics() const override;

private:
    class Impl;
    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::core
