// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

#include <zarip/core/IAllocator.h>

namespace zarip::core {

/// Allocates from the heap of the process and keeps a list of the memory that is in use. It serves all sizes,
/// and alignments up to 4096.
class ZARIP_EXPORT HeapAllocator : public IAllocator {
public:
    HeapAllocator();
    HeapAllocator(const HeapAllocator&) = delete;
    HeapAllocator& operator=(const HeapAllocator&) = delete;

    /// Frees the memory that is still in use.
    ~HeapAllocator() override;

    void* Allocate(std::size_t size, std::size_t alignment = alignof(std::max_align_t)) override;
    void Free(void* memory) override;
    Statistics GetStatistics() const override;

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::core
