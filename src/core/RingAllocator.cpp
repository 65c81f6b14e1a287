// SPDX-License-Identifier: MIT

#include "zarip/core/RingAllocator.h"

#include <algorithm>
#include <cstdint>
#include <deque>
#include <new>
#include <string>

#include "core/Allocators.h"
#include "zarip/core/AllocationException.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::core {

namespace {

/// Positions count from the beginning of the first lap and never decrease. The place in the ring is the
/// position modulo the size.
using Position = std::uint64_t;

struct Allocation {
    Position begin;
    Position end;
    bool isFreed;
};

constexpr std::size_t kPage = 4096;

struct PageDelete {
    void operator()(unsigned char* memory) const { ::operator delete(memory, std::align_val_t(kPage)); }
};

}  // namespace

/// The memory from the beginning of the oldest allocation to `head` is in use. That includes the gap at the
/// end of the ring that a large allocation did not fit into.
struct ZARIP_HIDDEN RingAllocator::Impl {
    explicit Impl(std::size_t ringSize)
        : size(ringSize),
          memory(static_cast<unsigned char*>(::operator new(ringSize, std::align_val_t(kPage)))) {}

    Position Tail() const ZARIP_REQUIRES(mutex) {
        return allocations.empty() ? head : allocations.front().begin;
    }

    const std::size_t size;
    const std::unique_ptr<unsigned char, PageDelete> memory;
    mutable osa::Mutex mutex{"RingAllocatorMutex"};
    Position head ZARIP_GUARDED_BY(mutex) = 0;
    std::deque<Allocation> allocations ZARIP_GUARDED_BY(mutex);  ///< oldest first; the first is not freed
    std::size_t count ZARIP_GUARDED_BY(mutex) = 0;
    std::size_t peak ZARIP_GUARDED_BY(mutex) = 0;
    unsigned long long failed ZARIP_GUARDED_BY(mutex) = 0;
};

RingAllocator::RingAllocator(std::size_t size) {
    if (size == 0) {
        throw AllocatorException("invalid size");
    }
    try {
        _impl = std::make_unique<Impl>(size);
    } catch (const std::bad_alloc&) {
        throw AllocationException("out of memory: no room for a ring of " + std::to_string(size) + " bytes");
    }
}

RingAllocator::~RingAllocator() = default;

void* RingAllocator::Allocate(std::size_t size, std::size_t alignment) {
    const std::size_t wanted = internal::CheckRequest(size, alignment, kPage);
    if (wanted > _impl->size) {
        throw AllocatorException("invalid size");
    }
    const osa::MutexAutoLock lock(&_impl->mutex);
    if (_impl->allocations.empty()) {
        _impl->head = 0;  // an allocation of the whole ring starts at the beginning
    }
    const std::size_t place = static_cast<std::size_t>(_impl->head % _impl->size);
    const Position lap = _impl->head - place;
    const std::size_t aligned = (place + alignment - 1) & ~(alignment - 1);
    // The place is after the last allocation, or at the beginning of the next lap.
    const bool fits = aligned >= place && aligned <= _impl->size && wanted <= _impl->size - aligned;
    const Position begin = fits ? lap + aligned : lap + _impl->size;
    if (begin + wanted - _impl->Tail() > _impl->size) {
        ++_impl->failed;
        throw AllocationException("out of memory: the ring has no " + std::to_string(size) + " bytes");
    }
    try {
        _impl->allocations.push_back({begin, begin + wanted, false});
    } catch (const std::bad_alloc&) {
        ++_impl->failed;
        throw AllocationException("out of memory: no room for the account of the ring");
    }
    _impl->head = begin + wanted;
    ++_impl->count;
    _impl->peak = std::max(_impl->peak, static_cast<std::size_t>(_impl->head - _impl->Tail()));
    return _impl->memory.get() + begin % _impl->size;
}

void RingAllocator::Free(void* memory) {
    if (memory == nullptr) {
        return;
    }
    // Computed as numbers, because the pointer may point anywhere.
    const std::uintptr_t place =
        reinterpret_cast<std::uintptr_t>(memory) - reinterpret_cast<std::uintptr_t>(_impl->memory.get());
    const osa::MutexAutoLock lock(&_impl->mutex);
    if (place >= _impl->size) {
        internal::ThrowForeign();
    }
    const Position tail = _impl->Tail();
    Position begin = tail - tail % _impl->size + place;
    if (begin < tail) {
        begin += _impl->size;
    }
    const auto allocation = std::lower_bound(
        _impl->allocations.begin(), _impl->allocations.end(), begin,
        [](const Allocation& candidate, Position position) { return candidate.begin < position; });
    if (allocation == _impl->allocations.end() || allocation->begin != begin) {
        throw AllocatorException("the pointer is not of this allocator, or was freed before");
    }
    if (allocation->isFreed) {
        internal::ThrowFreed();
    }
    allocation->isFreed = true;
    --_impl->count;
    while (!_impl->allocations.empty() && _impl->allocations.front().isFreed) {
        _impl->allocations.pop_front();
    }
}

IAllocator::Statistics RingAllocator::GetStatistics() const {
    const osa::MutexAutoLock lock(&_impl->mutex);
    Statistics statistics{};
    statistics.capacity = _impl->size;
    statistics.used = static_cast<std::size_t>(_impl->head - _impl->Tail());
    statistics.peak = _impl->peak;
    statistics.count = _impl->count;
    statistics.failed = _impl->failed;
    return statistics;
}

}  // namespace zarip::core
