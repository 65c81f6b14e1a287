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
constexpr Index kOut = 0xFFFFFFFF;   ///< in place of a successor: the block is the caller's
constexpr std::size_t kMaxCount = 0x7FFFFFFF;
constexpr std::size_t kCacheLine = 128;  ///< two of them: processors fetch in pairs

/// For each block the next in its list, or kOut. Neighbours, which are often in the hands of different
/// threads, stand in different cache lines.
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

/// A list of free blocks that any thread may push to and pop from: the first block below, and above a number
/// that changes with every change, so that a list which looks the same is the same.
class alignas(kCacheLine) FreeList {
public:
    std::uint64_t Look() const { return _head.load(std::memory_order_acquire); }
    static bool IsEmpty(std::uint64_t head) { return static_cast<Index>(head) == kNone; }

    void Push(const Successors& next, Index block) {
        std::uint64_t head = _head.load(std::memory_order_relaxed);
        do {
            next[block].store(static_cast<Index>(head), std::memory_order_relaxed);
        } while (!_head.compare_exchange_weak(head, Changed(head, block), std::memory_order_release,
                                              std::memory_order_relaxed));
    }

    Index Pop(const Successors& next) {
        std::uint64_t head = Look();
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

constexpr unsigned int kLists = 4;

/// Where the calling thread belongs: to the group that had the fewest living threads when it first asked.
class OwnGroup {
public:
    static unsigned int Get() { return __builtin_expect(s_group != kLists, 1) ? s_group : Join(); }

private:
    static void Leave(void* threads) {
        static_cast<std::atomic<unsigned int>*>(threads)->fetch_sub(1, std::memory_order_relaxed);
    }

    static unsigned int Join() {
        unsigned int group = 0;
        for (unsigned int other = 1; other < kLists; ++other) {
            if (s_threads[other].load(std::memory_order_relaxed) <
                s_threads[group].load(std::memory_order_relaxed)) {
                group = other;
            }
        }
        s_group = group;
        static const osa::PerThread<std::atomic<unsigned int>> s_membership(&Leave);
        if (s_membership.Set(&s_threads[group])) {
            s_threads[group].fetch_add(1, std::memory_order_relaxed);
        }
        return group;
    }

    // The library is loaded with the program or by it, once, so this costs no call.
    static inline thread_local unsigned int s_group __attribute__((tls_model("initial-exec"))) = kLists;
    static inline std::atomic<unsigned int> s_threads[kLists] = {};
};

struct AlignedDelete {
    void operator()(unsigned char* memory) const { ::operator delete(memory, alignment); }
    std::align_val_t alignment;
};

}  // namespace

/// Blocks that were never out stand behind `_fresh`; the others are in one of the lists or out.
///
/// A group that finds its list empty exchanges it for another's with blocks in it. Where one thread takes
/// blocks and another gives them back, the two so exchange a full list for an empty one now and then and
/// seldom meet at one. Who has which list is no more than a preference: any thread may use any list at any
/// time.
struct ZARIP_HIDDEN PoolAllocator::Impl {
    Impl(std::size_t size, std::size_t count, std::size_t blockAlignment)
        : _blockSize(size),
          _blockCount(static_cast<Index>(count)),
          _alignment(blockAlignment),
          _memory(static_cast<unsigned char*>(::operator new(size* count, std::align_val_t(blockAlignment))),
                  AlignedDelete{std::align_val_t(blockAlignment)}),
          _next(count) {}

    Index Take() {
        const unsigned int own = OwnGroup::Get();
        const Index block = ListOf(own).Pop(_next);
        return __builtin_expect(block != kNone, 1) ? block : TakeElsewhere(own);
    }

    void Give(Index block) { ListOf(OwnGroup::Get()).Push(_next, block); }

    static unsigned int ListOf(unsigned int group, unsigned int lists) { return lists >> (2 * group) & 3U; }

    FreeList& ListOf(unsigned int group) {
        return _lists[ListOf(group, _listsOfGroups.load(std::memory_order_relaxed))];
    }

    Index TakeElsewhere(unsigned int own) {
        for (;;) {
            std::uint64_t seen[kLists];
            for (unsigned int i = 0; i < kLists; ++i) {
                const Index block = _lists[i].Pop(_next);
                if (block != kNone) {
                    Prefer(own, i);
                    return block;
                }
                seen[i] = _lists[i].Look();
            }
            Index fresh = _fresh.load(std::memory_order_relaxed);
            while (fresh < _blockCount) {
                if (_fresh.compare_exchange_weak(fresh, fresh + 1, std::memory_order_relaxed)) {
                    return fresh;
                }
            }
            // All were empty when looked at one by one; if none has changed they were so at once.
            bool isEmpty = true;
            for (unsigned int i = 0; i < kLists; ++i) {
                isEmpty = isEmpty && FreeList::IsEmpty(seen[i]) && _lists[i].Look() == seen[i];
            }
            if (isEmpty) {
                return kNone;
            }
        }
    }

    /// Gives the group that list, and its own one to the group that has it; nothing where another exchanges
    /// at the same moment. In one step, or two groups would share a list for good and leave another to
    /// nobody.
    void Prefer(unsigned int group, unsigned int list) {
        unsigned int lists = _listsOfGroups.load(std::memory_order_relaxed);
        const unsigned int difference = ListOf(group, lists) ^ list;
        unsigned int exchanged = lists;
        for (unsigned int other = 0; other < kLists; ++other) {
            if (other == group || ListOf(other, lists) == list) {
                exchanged ^= difference << (2 * other);
            }
        }
        _listsOfGroups.compare_exchange_strong(lists, exchanged, std::memory_order_relaxed);
    }

    const std::size_t _blockSize;
    const Index _blockCount;
    const std::size_t _alignment;
    const int _shift = internal::IsPowerOfTwo(_blockSize) ? __builtin_ctzll(_blockSize) : 0;
    std::unique_ptr<unsigned char[], AlignedDelete> _memory;
    Successors _next;
    std::atomic<unsigned int> _listsOfGroups{0U | 1U << 2U | 2U << 4U | 3U << 6U};  ///< two bits for each
    FreeList _lists[kLists];
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
    if (internal::CheckRequest(size, alignment, _impl->_alignment) > _impl->_blockSize) {
        throw AllocatorException("invalid size");
    }
    const Index block = _impl->Take();
    if (block == kNone) {
        _impl->_failed.fetch_add(1, std::memory_order_relaxed);
        throw AllocationException("out of memory: all blocks of the pool are in use");
    }
    _impl->_next[block].store(kOut, std::memory_order_relaxed);
    return &_impl->_memory[block * _impl->_blockSize];
}

void PoolAllocator::Free(void* memory) {
    if (memory == nullptr) {
        return;
    }
    // As numbers, since the pointer may point anywhere.
    const std::uintptr_t offset =
        reinterpret_cast<std::uintptr_t>(memory) - reinterpret_cast<std::uintptr_t>(_impl->_memory.get());
    const std::uintptr_t number = _impl->_shift != 0 ? offset >> _impl->_shift : offset / _impl->_blockSize;
    if (number >= _impl->_blockCount || number * _impl->_blockSize != offset) {
        internal::ThrowForeign();
    }
    const auto block = static_cast<Index>(number);
    Index out = kOut;
    if (!_impl->_next[block].compare_exchange_strong(out, kNone, std::memory_order_acq_rel)) {
        internal::ThrowFreed();
    }
    _impl->Give(block);
}

IAllocator::Statistics PoolAllocator::GetStatistics() const {
    Statistics statistics{};
    const Index fresh = _impl->_fresh.load(std::memory_order_relaxed);
    for (Index block = 0; block < fresh; ++block) {
        statistics.count += _impl->_next[block].load(std::memory_order_relaxed) == kOut ? 1 : 0;
    }
    statistics.capacity = _impl->_blockSize * _impl->_blockCount;
    statistics.used = statistics.count * _impl->_blockSize;
    statistics.peak = fresh * _impl->_blockSize;
    statistics.failed = _impl->_failed.load(std::memory_order_relaxed);
    return statistics;
}

}  // namespace zarip::core
