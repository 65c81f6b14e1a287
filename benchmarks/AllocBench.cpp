// SPDX-License-Identifier: MIT

// Pool and ring allocators beside malloc, and bit streams.

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include <zarip/core/BitStreamReader.h>
#include <zarip/core/PoolAllocator.h>
#include <zarip/core/RingAllocator.h>

#include "Rounds.h"

namespace {

constexpr std::size_t kSize = 256;
constexpr int kRepeats = 200'000;

/// Takes and gives back so many at a time, in two threads.
template <class Allocate, class Free>
void InTwoThreads(int atATime, Allocate allocate, Free free) {
    const auto work = [&] {
        std::vector<void*> blocks(static_cast<std::size_t>(atATime));
        for (int i = 0; i < kRepeats; i += atATime) {
            for (void*& block : blocks) {
                block = allocate();
                *static_cast<volatile char*>(block) = 1;
            }
            for (void* block : blocks) {
                free(block);
            }
        }
    };
    std::thread other(work);
    work();
    other.join();
}

/// One thread takes blocks and hands them to another, which gives them back; up to 64 are on their way.
template <class Allocate, class Free>
void FromThreadToThread(Allocate allocate, Free free) {
    constexpr unsigned int kPlaces = 64;
    struct alignas(128) Counter {
        std::atomic<unsigned int> value{0};
    };
    Counter written;
    Counter read;
    void* places[kPlaces];
    std::thread other([&] {
        for (unsigned int i = 0; i < kRepeats; ++i) {
            while (written.value.load(std::memory_order_acquire) == i) {
                std::this_thread::yield();
            }
            free(places[i % kPlaces]);
            read.value.store(i + 1, std::memory_order_release);
        }
    });
    for (unsigned int i = 0; i < kRepeats; ++i) {
        while (i - read.value.load(std::memory_order_acquire) == kPlaces) {
            std::this_thread::yield();
        }
        void* block = allocate();
        *static_cast<volatile char*>(block) = 1;
        places[i % kPlaces] = block;
        written.value.store(i + 1, std::memory_order_release);
    }
    other.join();
}

void PoolAcrossThreads(const bench::Options& options) {
    zarip::core::PoolAllocator pool(kSize, 1024);
    bench::Rounds rounds("256 bytes taken by one thread and given back by another", options);
    rounds.Add(
        "malloc, free",
        [] { FromThreadToThread([] { return std::malloc(kSize); }, [](void* block) { std::free(block); }); },
        kRepeats);
    rounds.Add(
        "zarip::core::PoolAllocator",
        [&] {
            FromThreadToThread([&] { return pool.Allocate(kSize); }, [&](void* block) { pool.Free(block); });
        },
        kRepeats);
    rounds.Run();
}

void Pool(int atATime, const bench::Options& options) {
    zarip::core::PoolAllocator pool(kSize, 1024);
    bench::Rounds rounds(
        "256 bytes taken and given back by two threads, " + std::to_string(atATime) + " at a time", options);
    rounds.Add(
        "malloc, free",
        [&] {
            InTwoThreads(
                atATime, [] { return std::malloc(kSize); }, [](void* block) { std::free(block); });
        },
        2 * kRepeats);
    rounds.Add(
        "zarip::core::PoolAllocator",
        [&] {
            InTwoThreads(
                atATime, [&] { return pool.Allocate(kSize); }, [&](void* block) { pool.Free(block); });
        },
        2 * kRepeats);
    rounds.Run();
}

void Ring(const bench::Options& options) {
    zarip::core::RingAllocator ring(8 << 20U);
    bench::Rounds rounds("A frame of 32 KiB taken from a ring, the one 16 before given back", options);
    rounds.Add(
        "malloc, free",
        [] {
            void* frames[16] = {};
            for (std::size_t i = 0; i < kRepeats; ++i) {
                std::free(frames[i % 16]);
                frames[i % 16] = std::malloc(32'768);
            }
            for (void* frame : frames) {
                std::free(frame);
            }
        },
        kRepeats);
    rounds.Add(
        "zarip::core::RingAllocator",
        [&] {
            void* frames[16] = {};
            for (std::size_t i = 0; i < kRepeats; ++i) {
                ring.Free(frames[i % 16]);
                frames[i % 16] = ring.Allocate(32'768);
            }
            for (void* frame : frames) {
                ring.Free(frame);
            }
        },
        kRepeats);
    rounds.Run();
}

void Bits(const bench::Options& options) {
    constexpr std::size_t kBytes = 100'000;
    std::vector<unsigned char> data(kBytes);
    std::mt19937 random(1);
    for (unsigned char& byte : data) {
        byte = static_cast<unsigned char>(random());
    }
    std::vector<unsigned int> lengths;
    for (std::size_t bits = 0; bits + 16 < kBytes * 8; bits += lengths.back()) {
        lengths.push_back(static_cast<unsigned int>(random() % 16 + 1));
    }
    unsigned long long sum = 0;
    bench::Rounds rounds("Bits read, time for one", options);
    rounds.Add(
        "one at a time",
        [&] {
            zarip::core::BitStreamReader reader(data.data(), kBytes);
            for (std::size_t i = 0; i < kBytes * 8; ++i) {
                sum += reader.ReadBit() ? 1 : 0;
            }
        },
        kBytes * 8);
    rounds.Add(
        "1 to 16 at a time",
        [&] {
            zarip::core::BitStreamReader reader(data.data(), kBytes);
            for (const unsigned int length : lengths) {
                sum += reader.ReadBits(length);
            }
        },
        kBytes * 8);
    rounds.Run();
    if (sum == 1) {
        std::abort();  // the bits are used
    }
}

}  // namespace

int main(int argc, char** argv) {
    const bench::Options options = bench::ParseOptions(argc, argv);
    Pool(1, options);
    Pool(16, options);
    PoolAcrossThreads(options);
    Ring(options);
    Bits(options);
}
