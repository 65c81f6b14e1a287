// SPDX-License-Identifier: MIT

#include <zarip/osa/Semaphore.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "osa/FailingCalls.h"
#include "osa/LockTestSupport.h"
#include "support/InThreads.h"

namespace zarip::osa {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const LockOutcome kFull{"maxCount was reached", 2};

LockOutcome Release(Semaphore& semaphore) {
    return OutcomeOf([&] { semaphore.Release(); });
}

int UnitsOf(Semaphore& semaphore) {
    int units = 0;
    while (semaphore.TryLock(0)) {
        ++units;
    }
    return units;
}

TEST(SemaphoreTest, HoldsAsManyUnitsAsItsCeiling) {
    Semaphore one("s", 1, 1);
    EXPECT_EQ(Release(one), kFull);
    EXPECT_EQ(UnitsOf(one), 1);
    EXPECT_EQ(Release(one), LockOutcome());
    EXPECT_EQ(Release(one), kFull);

    // The whole range of the 16-bit arguments.
    Semaphore most(nullptr, 65'535, 65'533);
    most.Release();
    most.Release();
    EXPECT_EQ(Release(most), kFull);
    EXPECT_EQ(UnitsOf(most), 65'535);

    Semaphore none("s", 0, 0);
    EXPECT_EQ(Release(none), kFull);
    EXPECT_FALSE(none.TryLock(0));
}

TEST(SemaphoreTest, AWaitThatRunsOutSaysSo) {
    Semaphore semaphore("s", 1, 0);
    const auto begin = Clock::now();
    EXPECT_FALSE(semaphore.TryLock(0));
    EXPECT_EQ(OutcomeOf([&] { semaphore.Lock(0); }), (LockOutcome{"Semaphore::Lock timeout after 0ms", 1}));
    EXPECT_FALSE(semaphore.TryLock(20));
    EXPECT_GE(Clock::now() - begin, milliseconds(20));
    EXPECT_EQ(OutcomeOf([&] { semaphore.Lock(250); }),
              (LockOutcome{"Semaphore::Lock timeout after 250ms", 1}));
    EXPECT_GE(Clock::now() - begin, milliseconds(270));
    // Nothing of it stuck.
    semaphore.Release();
    EXPECT_TRUE(semaphore.TryLock(0));
}

TEST(SemaphoreTest, AWaitDoesNotGrowWhenTheClockIsSetBack) {
    Semaphore semaphore("s", 1, 0);
    const ClockSetBack clock;
    // An hour of waiting would outlast the test's time limit.
    EXPECT_FALSE(semaphore.TryLock(20));
}

TEST(SemaphoreTest, AUnitThatArrivesAsTheWaitEndsIsTaken) {
    Semaphore semaphore("s", 1, 0);
    const FailingCall late("pthread_cond_clockwait", ETIMEDOUT, [&] { semaphore.Release(); });
    EXPECT_TRUE(semaphore.TryLock(20));
    EXPECT_FALSE(semaphore.TryLock(0));
}

TEST(SemaphoreTest, WaitersGetTheUnitsThatAreReleased) {
    constexpr int kRounds = 2'000;
    Semaphore there("there", 2, 0);
    Semaphore back("back", 2, 0);
    std::atomic<int> taken{0};
    test::Threads threads(2, [&](int i) {
        for (int round = 0; round < kRounds; ++round) {
            there.Lock(i == 0 ? kWaitForEver : 3'600'000);
            ++taken;
            back.Release();
        }
    });
    for (int round = 0; round < kRounds; ++round) {
        there.Release();
        there.Release();
        back.Lock();
        back.Lock(3'600'000);
        ASSERT_EQ(taken, 2 * (round + 1));
    }
    threads.Join();
    EXPECT_EQ(UnitsOf(there) + UnitsOf(back), 0);
}

TEST(SemaphoreTest, ReleasesAtTheSameTimeStayBelowTheCeiling) {
    Semaphore semaphore("s", 1'000, 0);
    std::atomic<int> accepted{0};
    test::InThreads(4, [&](int) {
        for (int round = 0; round < 1'000; ++round) {
            if (Release(semaphore) == LockOutcome()) {
                ++accepted;
            }
        }
    });
    EXPECT_EQ(accepted, 1'000);
    EXPECT_EQ(UnitsOf(semaphore), 1'000);
}

TEST(SemaphoreTest, TheLastWaiterMayDestroyIt) {
    std::vector<std::unique_ptr<Semaphore>> semaphores;
    for (int i = 0; i < 2'000; ++i) {
        semaphores.push_back(std::make_unique<Semaphore>("s", 1, 0));
    }
    std::vector<Semaphore*> toRelease;
    for (const auto& semaphore : semaphores) {
        toRelease.push_back(semaphore.get());
    }
    std::thread releaser([&] {
        for (Semaphore* semaphore : toRelease) {
            semaphore->Release();
        }
    });
    for (auto& semaphore : semaphores) {
        semaphore->Lock();
        semaphore.reset();
    }
    releaser.join();
}

TEST(SemaphoreTest, FailuresOfTheSystemBecomeExceptions) {
    const auto make = [] { const Semaphore semaphore("s", 1, 1); };
    {
        const FailingCall failing("pthread_mutex_init", ENOMEM);
        EXPECT_EQ(OutcomeOf(make), (LockOutcome{"pthread_mutex_init failed", 2}));
    }
    {
        const FailingCall failing("pthread_cond_init", ENOMEM);
        EXPECT_EQ(OutcomeOf(make), (LockOutcome{"pthread_cond_init failed", 2}));
    }
    Semaphore semaphore("s", 1, 1);
    const LockOutcome noClock{"clock_gettime failed", 0};
    {
        const FailingCall failing("clock_gettime", -1);
        EXPECT_TRUE(semaphore.TryLock(1)) << "a free unit needs no clock";
        EXPECT_EQ(OutcomeOf([&] { semaphore.TryLock(1); }), noClock);
        EXPECT_FALSE(semaphore.TryLock(0));
    }
    {
        // Once the wait has begun; nothing stays locked.
        std::optional<FailingCall> failing;
        const FailingCall wait("pthread_cond_clockwait", ETIMEDOUT,
                               [&] { failing.emplace("clock_gettime", -1); });
        EXPECT_EQ(OutcomeOf([&] { semaphore.TryLock(20); }), noClock);
        failing.reset();
    }
    semaphore.Release();
    EXPECT_TRUE(semaphore.TryLock(0));
}

}  // namespace
}  // namespace zarip::osa
