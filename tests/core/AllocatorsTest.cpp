// SPDX-License-Identifier: MIT

#include <zarip/core/AllocationException.h>
#include <zarip/core/AllocatorException.h>
#include <zarip/core/Handle.h>
#include <zarip/core/HeapAllocator.h>
#include <zarip/core/PoolAllocator.h>
#include <zarip/core/RingAllocator.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/ErrorOf.h"
#include "support/InThreads.h"

namespace zarip::core {
namespace {

using test::ErrorOf;

constexpr char kMisused[] = "the pointer is not of this allocator, or was freed before";

bool IsAligned(const void* memory, std::size_t alignment) {
    return reinterpret_cast<std::uintptr_t>(memory) % alignment == 0;
}

/// What all allocators have in common, run with each of them.
struct Kind {
    const char* name;
    std::function<std::unique_ptr<IAllocator>()> make;
};

class AllocatorTest : public testing::TestWithParam<Kind> {
protected:
    const std::unique_ptr<IAllocator> _allocator = GetParam().make();
};

INSTANTIATE_TEST_SUITE_P(
    Kinds, AllocatorTest,
    testing::Values(Kind{"Heap", [] { return std::make_unique<HeapAllocator>(); }},
                    Kind{"Pool", [] { return std::make_unique<PoolAllocator>(256, 64, 64); }},
                    Kind{"Ring", [] { return std::make_unique<RingAllocator>(64 * 256); }}),
    [](const auto& kind) { return kind.param.name; });

TEST_P(AllocatorTest, MemoryIsAlignedApartAndAccountedFor) {
    std::vector<unsigned char*> out;
    for (std::size_t i = 0; i < 40; ++i) {
        const std::size_t alignment = std::size_t{1} << (i % 7);
        out.push_back(static_cast<unsigned char*>(_allocator->Allocate(i * 5, alignment)));
        EXPECT_TRUE(IsAligned(out.back(), alignment));
        std::memset(out.back(), static_cast<int>(i), i * 5);
    }
    for (std::size_t i = 0; i < out.size(); ++i) {
        for (std::size_t byte = 0; byte < i * 5; ++byte) {
            ASSERT_EQ(out[i][byte], i);
        }
    }
    const auto full = _allocator->GetStatistics();
    EXPECT_EQ(full.count, 40U);
    EXPECT_GE(full.used, 40U * 39 / 2 * 5);
    EXPECT_GE(full.peak, full.used);
    for (unsigned char* memory : out) {
        _allocator->Free(memory);
    }
    _allocator->Free(nullptr);
    const auto empty = _allocator->GetStatistics();
    EXPECT_EQ(empty.count, 0U);
    EXPECT_EQ(empty.used, 0U);
    EXPECT_EQ(empty.peak, full.peak);
}

TEST_P(AllocatorTest, MisuseIsFoundAndChangesNothing) {
    auto* const kept = static_cast<unsigned char*>(_allocator->Allocate(100));
    void* const freed = _allocator->Allocate(100);
    _allocator->Free(freed);
    int elsewhere = 0;
    for (void* wrong : {freed, static_cast<void*>(kept + 1), static_cast<void*>(kept + 16),
                        static_cast<void*>(&elsewhere), reinterpret_cast<void*>(std::uintptr_t{1})}) {
        EXPECT_THROW(_allocator->Free(wrong), AllocatorException);
    }
    for (const std::size_t alignment : {std::size_t{0}, std::size_t{3}, std::size_t{1} << 20U}) {
        EXPECT_EQ(ErrorOf([&] { _allocator->Allocate(1, alignment); }), "invalid alignment");
    }
    EXPECT_EQ(_allocator->GetStatistics().count, 1U);
    _allocator->Free(kept);
}

TEST_P(AllocatorTest, ThreadsShareItAndFreeWhatOthersAllocated) {
    std::mutex mutex;
    std::deque<std::uint32_t*> handed;
    std::atomic<int> wrong{0};
    test::InThreads(4, [&](int thread) {
        const auto id = static_cast<std::uint32_t>(thread + 1);
        std::mt19937 random(id);
        for (int i = 0; i < 5'000; ++i) {
            try {
                auto* const memory = static_cast<std::uint32_t*>(_allocator->Allocate(16 + random() % 100));
                memory[0] = id;
                memory[3] = ~id;
                const std::lock_guard<std::mutex> lock(mutex);
                handed.push_back(memory);
            } catch (const AllocationException&) {
                // The memory is full, so another thread has to free some.
            }
            std::uint32_t* taken = nullptr;
            {
                const std::lock_guard<std::mutex> lock(mutex);
                if (handed.size() > 20) {
                    const std::size_t which = random() % 4;
                    taken = handed[which];
                    handed.erase(handed.begin() + static_cast<std::ptrdiff_t>(which));
                }
            }
            if (taken != nullptr) {
                wrong += taken[0] == ~taken[3] ? 0 : 1;
                _allocator->Free(taken);
            }
        }
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(_allocator->GetStatistics().count, handed.size());
    for (std::uint32_t* memory : handed) {
        _allocator->Free(memory);
    }
    EXPECT_EQ(_allocator->GetStatistics().used, 0U);
}

TEST(PoolAllocatorTest, EveryBlockIsServedWhicheverThreadFreedIt) {
    PoolAllocator pool(20, 100, 8);
    EXPECT_EQ(pool.GetStatistics().capacity, 2'400U);
    for (int round = 0; round < 3; ++round) {
        std::vector<void*> blocks;
        for (int i = 0; i < 100; ++i) {
            blocks.push_back(pool.Allocate(20, 8));
        }
        EXPECT_EQ(ErrorOf([&] { pool.Allocate(1, 1); }), "out of memory: all blocks of the pool are in use");
        // From several threads, and so to several lists.
        test::InThreads(5, [&](int part) {
            for (auto i = static_cast<std::size_t>(part); i < blocks.size(); i += 5) {
                pool.Free(blocks[i]);
            }
        });
    }
    const auto statistics = pool.GetStatistics();
    EXPECT_EQ(statistics.peak, 2'400U);
    EXPECT_EQ(statistics.failed, 3U);
    EXPECT_EQ(ErrorOf([&] { pool.Allocate(25, 1); }), "invalid size");
    EXPECT_EQ(ErrorOf([&] { pool.Free(&pool); }), "the pointer is not of this allocator");
    void* const block = pool.Allocate(1, 1);
    pool.Free(block);
    EXPECT_EQ(ErrorOf([&] { pool.Free(block); }), "the memory was freed before");

    constexpr std::size_t kHuge = std::numeric_limits<std::size_t>::max();
    for (const auto& [size, count] :
         {std::pair<std::size_t, std::size_t>{kHuge, 1}, {1, 0}, {1, 1U << 31U}}) {
        EXPECT_THROW(PoolAllocator(size, count), AllocatorException) << size << " " << count;
    }
    EXPECT_THROW(PoolAllocator(kHuge / 4, 2), AllocationException);
}

TEST(RingAllocatorTest, MemoryReturnsInOrderWhateverTheOrderOfFreeing) {
    RingAllocator ring(1'000);
    void* const whole = ring.Allocate(1'000, 1);
    EXPECT_EQ(ErrorOf([&] { ring.Allocate(1, 1); }), "out of memory: the ring has no 1 bytes");
    ring.Free(whole);
    EXPECT_EQ(ErrorOf([&] { ring.Allocate(1'001, 1); }), "invalid size");

    auto* const a = static_cast<char*>(ring.Allocate(300, 1));
    auto* const b = static_cast<char*>(ring.Allocate(300, 1));
    auto* const c = static_cast<char*>(ring.Allocate(300, 1));
    EXPECT_EQ(b, a + 300);
    EXPECT_EQ(c, a + 600);
    EXPECT_THROW(ring.Allocate(200, 1), AllocationException);
    ring.Free(b);  // it follows one that is in use, so nothing becomes available
    EXPECT_THROW(ring.Allocate(200, 1), AllocationException);
    EXPECT_EQ(ErrorOf([&] { ring.Free(b); }), "the memory was freed before");
    ring.Free(a);
    // The end is too short: at the beginning of the next lap, and not into what is still out.
    EXPECT_EQ(ring.Allocate(500, 1), a);
    EXPECT_THROW(ring.Allocate(101, 1), AllocationException);
    EXPECT_EQ(ring.Allocate(100, 1), a + 500);
    EXPECT_EQ(ring.GetStatistics().used, 1'000U);
    EXPECT_EQ(ErrorOf([&] { ring.Free(b); }), kMisused);
    ring.Free(c);
    EXPECT_EQ(ring.GetStatistics().used, 600U);
    EXPECT_EQ(ErrorOf([&] { ring.Free(c); }), kMisused);
}

TEST(RingAllocatorTest, FramesOfAllSizesGoRoundForLong) {
    RingAllocator ring(10'000);
    std::mt19937 random(3);
    std::deque<std::pair<unsigned char*, std::size_t>> frames;
    for (int i = 0; i < 20'000; ++i) {
        const std::size_t size = random() % 3'000 + 1;
        try {
            frames.emplace_back(static_cast<unsigned char*>(ring.Allocate(size, 64)), size);
            std::memset(frames.back().first, i, size);
            ASSERT_TRUE(IsAligned(frames.back().first, 64));
        } catch (const AllocationException&) {
            ASSERT_FALSE(frames.empty()) << "an empty ring has no room for " << size;
            const std::size_t which = random() % std::min<std::size_t>(frames.size(), 2);
            const auto [memory, length] = frames[which];
            ASSERT_EQ(std::count(memory, memory + length, memory[0]), static_cast<std::ptrdiff_t>(length));
            ring.Free(memory);
            frames.erase(frames.begin() + static_cast<std::ptrdiff_t>(which));
        }
    }
}

struct Counted {
    explicit Counted(int value) : _value(value) {
        if (value < 0) {
            throw std::runtime_error("negative");
        }
        ++s_alive;
    }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    ~Counted() { --s_alive; }
    alignas(64) int _value;
    static int s_alive;
};
int Counted::s_alive = 0;

TEST(HandleTest, TheLastHandleFreesTheObject) {
    PoolAllocator pool(256, 1, 64);
    auto handle = Handle<Counted>::Create(pool, 7);
    EXPECT_TRUE(IsAligned(handle.Get(), 64));
    EXPECT_THROW(Handle<Counted>::Create(pool, 8), AllocationException);
    {
        const Handle<Counted> copy = handle;
        Handle<Counted> moved = std::move(handle);
        EXPECT_FALSE(handle);
        EXPECT_EQ(handle.Get(), nullptr);
        EXPECT_EQ(copy.GetCount(), 2);
        EXPECT_EQ(copy, moved);
        EXPECT_EQ(copy->_value + (*moved)._value, 14);
        handle = copy;
        handle = *&handle;
    }
    EXPECT_EQ(handle.GetCount(), 1);
    EXPECT_EQ(Counted::s_alive, 1);
    handle = nullptr;
    EXPECT_EQ(Counted::s_alive, 0);
    EXPECT_THROW(Handle<Counted>::Create(pool, -1), std::runtime_error);
    EXPECT_EQ(pool.GetStatistics().count, 0U);
    EXPECT_EQ(Handle<Counted>::Create(pool, 9)->_value, 9);
}

}  // namespace
}  // namespace zarip::core
