// SPDX-License-Identifier: MIT

#include "zarip/core/HeapAllocator.h"

#include <algorithm>
#include <limits>
#include <new>
#include <unordered_map>

#include "core/Allocators.h"
#include "zarip/core/AllocationException.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::core {

namespace {

struct Allocation {
    std::size_t size;
    std::align_val_t alignment;
};

constexpr std::size_t kMaxAlignment = 4096;

}  // namespace

struct ZARIP_HIDDEN HeapAllocator::Impl {
    mutable osa::Mutex mutex{"HeapAllocatorMutex"};
    std::unordered_map<void*, Allocation> out ZARIP_GUARDED_BY(mutex);
    Statistics statistics ZARIP_GUARDED_BY(mutex){};
};

HeapAllocator::HeapAllocator() : _impl(std::make_unique<Impl>()) {}

HeapAllocator::~HeapAllocator() {
    for (const auto& [memory, allocation] : _impl->out) {
        ::operator delete(memory, allocation.alignment);
    }
}

void* HeapAllocator::Allocate(std::size_t size, std::size_t alignment) {
    const Allocation allocation{internal::CheckRequest(size, alignment, kMaxAlignment),
                                std::align_val_t(alignment)};
    const osa::MutexAutoLock lock(&_impl->mutex);
    void* memory = nullptr;
    try {
        memory = ::operator new(allocation.size, allocation.alignment);
        _impl->out.emplace(memory, allocation);
    } catch (const std::bad_alloc&) {
        ::operator delete(memory, allocation.alignment);
        ++_impl->statistics.failed;
        throw AllocationException("out of memory: the heap has no " + std::to_string(size) + " bytes");
    }
    _impl->statistics.used += allocation.size;
    _impl->statistics.peak = std::max(_impl->statistics.peak, _impl->statistics.used);
    return memory;
}

void HeapAllocator::Free(void* memory) {
    if (memory == nullptr) {
        return;
    }
    const osa::MutexAutoLock lock(&_impl->mutex);
    const auto entry = _impl->out.find(memory);
    if (entry == _impl->out.end()) {
        // Which of the two it is cannot be known, because the heap may have given the address to other code
        // since.
        throw AllocatorException("the pointer is not of this allocator, or was freed before");
    }
    _impl->statistics.used -= entry->second.size;
    ::operator delete(memory, entry->second.alignment);
    _impl->out.erase(entry);
}

IAllocator::Statistics HeapAllocator::GetStatistics() const {
    const osa::MutexAutoLock lock(&_impl->mutex);
    Statistics statistics = _impl->statistics;
    statistics.count = _impl->out.size();
    return statistics;
}

}  // namespace zarip::core
