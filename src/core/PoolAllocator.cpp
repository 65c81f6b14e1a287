// SPDX-License-Identifier: MIT

#include "zarip/core/PoolAllocator.h"

#include <atomic>
#include <cstdint>
#include <limits>
#include <new>

#include "core/Allocators.h"
#include "osa/PerThread.h"
#include "zarip/core/AllocationException.h"

namespace zarip::core {

namespace {

using Index = std::uint32_t;
constexpr Index kNone = 0xFFFFFFFE;  ///< the end of a list
constexpr Index kOut = 0xFFFFFFFF;   ///< in place of a successor: the caller has the block
constexpr std::size_t kMaxCount = 0x7FFFFFFF;
constexpr std::size_t kCacheLine = 128;  ///< two lines, because processors fetch them in pairs

/// Holds for each block the next block in its list, or kOut. Neighbouring blocks are often used by different
/// threads, so their entries are in different cache lines.
class Successors {
public:
    explicit Successors(std::size_t count) {
        while ((kPerLine << _lineBits) < count) {
            ++_lineBits;
        }
        _successors = std::make_unique<std::atomic<Index>[]>(kPerLine << _lineBits);
    }

    std::atomic<Index>& operator[](Index block) const {
        const std::size_t line = block & ((std::size_t{1} << _lineBits) - 1);
        return _successors[line * kPerLine + (block >> _lineBits)];
    }

private:
    static constexpr std::size_t kPerLine = kCacheLine / sizeof(std::atomic<Index>);
    unsigned int _lineBits = 0;
    std::unique_ptr<std::atomic<Index>[]> _successors;
};

/// A list of free blocks that any thread may push to and pop from. The lower half of the head is the first
/// block. The upper half is a version counter against the ABA problem.
class alignas(kCacheLine) FreeList {
public:
    std::uint64_t GetHead() const { return _head.load(std::memory_order_acquire); }
    static bool IsEmpty(std::uint64_t head) { return static_cast<Index>(head) == kNone; }

    void Push(const Successors& next, Index block) {
        std::uint64_t head = _head.load(std::memory_order_relaxed);
        do {
            next[block].store(static_cast<Index>(head), std::memory_order_relaxed);
        } while (!_head.compare_exchange_weak(head, Changed(head, block), std::memory_order_release,
                                              std::memory_order_relaxed));
    }

    Index Pop(const Successors& next) {
        std::uint64_t head = GetHead();
        while (!IsEmpty(head)) {
            const auto block = static_cast<Index>(head);
            const Index successor = next[block].load(std::memory_order_relaxed);
            if (_head.compare_exchange_weak(head, Changed(head, successor), std::memory_order_acquire)) {
                return block;
            }
        }
        return kNone;
    }

private:
    static std::uint64_t Changed(std::uint64_t head, Index first) {
        return (((head >> 32U) + 1) << 32U) | first;
    }

    std::atomic<std::uint64_t> _head{kNone};
};

/// The group of the calling thread, 0 or 1: the one that had fewer living threads when the thread first
/// asked.
class OwnGroup {
public:
    static unsigned int Get() { return __builtin_expect(s_group != kUnknown, 1) ? s_group : Join(); }

private:
    static constexpr unsigned int kUnknown = 2;

    static void CountEnd(void* threads) {
        static_cast<std::atomic<unsigned int>*>(threads)->fetch_sub(1, std::memory_order_relaxed);
    }

    static unsigned int Join() {
        const unsigned int group =
            s_threads[1].load(std::memory_order_relaxed) < s_threads[0].load(std::memory_order_relaxed);
        s_group = group;
        static const osa::PerThread<std::atomic<unsigned int>> s_membership(&CountEnd);
        if (s_membership.Set(&s_threads[group])) {
            s_threads[group].fetch_add(1, std::memory_order_relaxed);
        }
        return group;
    }

    // The initial-exec model reads the variable without a call. It suits a library that is never unloaded.
    static inline thread_local unsigned int s_group __attribute__((tls_model("initial-exec"))) = kUnknown;
    static inline std::atomic<unsigned int> s_threads[2] = {};
};

struct AlignedDelete {
    void operator()(unsigned char* memory) const { ::operator delete(memory, alignment); }
    std::align_val_t alignment;
};

}  // namespace

/// A block is in the caller's hands, in one of the free lists, or was never taken; the last kind begins at
/// `_fresh`. Each step is one atomic operation, so no thread waits for another.
///
/// There are two lists, one for each group of threads. A group that finds its list empty and the other one
/// not exchanges the two. If one thread takes blocks and another gives them back, they exchange a full list
/// for an empty one now and then, and so they seldom use the same list at the same time. Which group has
/// which list is only a preference: any thread may use any list at any time.
class ZARIP_HIDDEN PoolAllocator::Impl {
public:
    Impl(std::size_t size, std::size_t count, std::size_t alignment)
        : _blockSize(size),
          _blockCount(static_cast<Index>(count)),
          _alignment(alignment),
          _memory(static_cast<unsigned char*>(::operator new(size* count, std::align_val_t(alignment))),
                  AlignedDelete{std::align_val_t(alignment)}),
          _next(count) {}

    void* Allocate(std::size_t size, std::size_t alignment) {
        if (internal::CheckRequest(size, alignment, _alignment) > _blockSize) {
            throw AllocatorException("invalid size");
        }
        const Index block = TakeBlock();
        if (block == kNone) {
            _failed.fetch_add(1, std::memory_order_relaxed);
            throw AllocationException("out of memory: all blocks of the pool are in use");
        }
        _next[block].store(kOut, std::memory_order_relaxed);
        return &_memory[block * _blockSize];
    }

    void Free(void* memory) {
        // Computed as numbers, because the pointer may point anywhere.
        const std::uintptr_t offset =
            reinterpret_cast<std::uintptr_t>(memory) - reinterpret_cast<std::uintptr_t>(_memory.get());
        const std::uintptr_t number = _shift != 0 ? offset >> _shift : offset / _blockSize;
        if (number >= _blockCount || number * _blockSize != offset) {
            internal::ThrowForeign();
        }
        const auto block = static_cast<Index>(number);
        Index out = kOut;
        if (!_next[block].compare_exchange_strong(out, kNone, std::memory_order_acq_rel)) {
            internal::ThrowFreed();
        }
        _lists[GetList(OwnGroup::Get())].Push(_next, block);
    }

    Statistics GetStatistics() const {
        Statistics statistics{};
        const Index fresh = _fresh.load(std::memory_order_relaxed);
        for (Index block = 0; block < fresh; ++block) {
            statistics.count += _next[block].load(std::memory_order_relaxed) == kOut ? 1 : 0;
        }
        statistics.capacity = _blockSize * _blockCount;
        statistics.used = statistics.count * _blockSize;
        statistics.peak = fresh * _blockSize;
        statistics.failed = _failed.load(std::memory_order_relaxed);
        return statistics;
    }

private:
    unsigned int GetList(unsigned int group) const {
        return group ^ _areExchanged.load(std::memory_order_relaxed);
    }

    Index TakeBlock() {
        const unsigned int group = OwnGroup::Get();
        const Index block = _lists[GetList(group)].Pop(_next);
        return __builtin_expect(block != kNone, 1) ? block : TakeElsewhere(group);
    }

    Index TakeElsewhere(unsigned int group) {
        for (;;) {
            std::uint64_t seen[2];
            for (unsigned int list = 0; list < 2; ++list) {
                const Index block = _lists[list].Pop(_next);
                if (block != kNone) {
                    _areExchanged.store(group ^ list, std::memory_order_relaxed);
                    return block;
                }
                seen[list] = _lists[list].GetHead();
            }
            Index fresh = _fresh.load(std::memory_order_relaxed);
            while (fresh < _blockCount) {
                if (_fresh.compare_exchange_weak(fresh, fresh + 1, std::memory_order_relaxed)) {
                    return fresh;
                }
            }
            // The lists were found empty one after the other. If neither has changed since, both were empty
            // when there were no fresh blocks any more.
            if (FreeList::IsEmpty(seen[0]) && FreeList::IsEmpty(seen[1]) && _lists[0].GetHead() == seen[0] &&
                _lists[1].GetHead() == seen[1]) {
                return kNone;
            }
        }
    }

    const std::size_t _blockSize;
    const Index _blockCount;
    const std::size_t _alignment;
    const int _shift = internal::IsPowerOfTwo(_blockSize) ? __builtin_ctzll(_blockSize) : 0;
    std::unique_ptr<unsigned char[], AlignedDelete> _memory;
    Successors _next;
    std::atomic<unsigned int> _areExchanged{0};  ///< 1 if group 0 has the second list
    FreeList _lists[2];
    alignas(kCacheLine) std::atomic<Index> _fresh{0};
    std::atomic<unsigned long long> _failed{0};
};

PoolAllocator::PoolAllocator(std::size_t blockSize, std::size_t blockCount, std::size_t alignment) {
    const std::size_t wanted =
        internal::CheckRequest(blockSize, alignment, std::numeric_limits<std::size_t>::max() / 2 + 1);
    const std::size_t size = (wanted + alignment - 1) / alignment * alignment;
    if (size < wanted || blockCount == 0 || blockCount > kMaxCount) {
        throw AllocatorException("invalid size");
    }
    if (size > std::numeric_limits<std::ptrdiff_t>::max() / blockCount) {
        throw AllocationException("out of memory: too many blocks");
    }
    try {
        _impl = std::make_unique<Impl>(size, blockCount, alignment);
    } catch (const std::bad_alloc&) {
        throw AllocationException("out of memory: no room for the pool");
    }
}

PoolAllocator::~PoolAllocator() = default;

void* PoolAllocator::Allocate(std::size_t size, std::size_t alignment) {
    return _impl->Allocate(size, alignment);
}

void PoolAllocator::Free(void* memory) {
    if (memory != nullptr) {
        _impl->Free(memory);
    }
}

IAllocator::Statistics PoolAllocator::GetStatistics() const {
    return _impl->GetStatistics();
}

}  // namespace zarip::core
