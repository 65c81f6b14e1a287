// SPDX-License-Identifier: MIT

#include <zarip/osa/Interlocked.h>
#include <zarip/osa/InterlockedObj.h>
#include <zarip/osa/Mutex.h>
#include <zarip/osa/MutexAutoLock.h>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "osa/FailingCalls.h"
#include "osa/LockTestSupport.h"
#include "support/InThreads.h"

// Releasing what one does not hold is what these tests are about; the thread sanitizer need not report it.
extern "C" const char* __tsan_default_suppressions();   // NOLINT(bugprone-reserved-identifier)
extern "C" const char* __tsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier)
    return "mutex:OnlyTheOwnerReleases\n"
           "mutex:AutoLockReportsAFailedRelease\n"
           "mutex:AnObjectsMutexHoldsSeveralOperations\n";
}

namespace zarip::osa {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const LockOutcome kNothing;
const LockOutcome kTimeout{"Timeout", 1};

// Locks taken by one thread and tried by another are beyond what the static analysis can follow.
#define UNCHECKED ZARIP_NO_THREAD_SAFETY_ANALYSIS

struct MutexTest : testing::Test {
    Mutex mutex{"MutexTest"};

    bool IsFree() UNCHECKED {
        return OnAnotherThread([this]() UNCHECKED {
            const bool taken = mutex.TryLock();
            if (taken) {
                mutex.Release();
            }
            return taken;
        });
    }
    std::unique_ptr<Holder> HeldByAnotherThread() {
        return std::make_unique<Holder>([this]() UNCHECKED { mutex.Lock(); },
                                        [this]() UNCHECKED { mutex.Release(); });
    }
};

TEST_F(MutexTest, TheOwnerMayLockAgainAndReleasesAsOften) UNCHECKED {
    mutex.Lock();
    mutex.Lock(0);
    mutex.Lock(1000);
    EXPECT_TRUE(mutex.TryLock());
    EXPECT_TRUE(mutex.TryLockFor(0));
    EXPECT_TRUE(mutex.TryLockFor(static_cast<unsigned int>(-1)));
    for (int held = 6; held > 0; --held) {
        EXPECT_FALSE(IsFree()) << held;
        mutex.Release();
    }
    EXPECT_TRUE(IsFree());
}

TEST_F(MutexTest, OnlyTheOwnerReleases) UNCHECKED {
    const LockOutcome notOwner{"Thread does not own lock", 0};
    const auto release = [this]() UNCHECKED { mutex.Release(); };
    EXPECT_EQ(OutcomeOf(release), notOwner);
    {
        const auto holder = HeldByAnotherThread();
        EXPECT_EQ(OutcomeOf(release), notOwner);
    }
    EXPECT_TRUE(IsFree());
}

TEST_F(MutexTest, ABusyMutexTimesOut) UNCHECKED {
    const auto holder = HeldByAnotherThread();
    EXPECT_FALSE(mutex.TryLock());
    EXPECT_FALSE(mutex.TryLockFor(0));
    EXPECT_EQ(OutcomeOf([this]() UNCHECKED { mutex.Lock(0); }), kTimeout);

    const auto begin = Clock::now();
    EXPECT_FALSE(mutex.TryLockFor(20));
    EXPECT_GE(Clock::now() - begin, milliseconds(20));
    EXPECT_EQ(OutcomeOf([this]() UNCHECKED { mutex.Lock(30); }), kTimeout);
    EXPECT_GE(Clock::now() - begin, milliseconds(50));
}

TEST_F(MutexTest, AWaitDoesNotGrowWhenTheClockIsSetBack) UNCHECKED {
    const auto holder = HeldByAnotherThread();
    const ClockSetBack clock;
    // An hour of waiting would outlast the test's time limit.
    EXPECT_FALSE(mutex.TryLockFor(20));
}

TEST_F(MutexTest, WaitersGetTheLockWhenItIsReleased) UNCHECKED {
    for (const unsigned int timeout : {kWaitForEver, 3'600'000U, 0xFFFFFFFEU}) {
        std::string order;
        std::promise<void> begun;
        mutex.Lock();
        std::thread waiter([&]() UNCHECKED {
            begun.set_value();
            mutex.Lock(timeout);
            order += "waiter";
            mutex.Release();
        });
        begun.get_future().wait();
        order += "owner ";
        mutex.Release();
        waiter.join();
        EXPECT_EQ(order, "owner waiter") << timeout;
    }
}

TEST_F(MutexTest, OneThreadAtATimeGetsIn) UNCHECKED {
    constexpr int kRounds = 5'000;
    int counter = 0;
    test::InThreads(4, [&](int i) UNCHECKED {
        for (int round = 0; round < kRounds; ++round) {
            switch ((i + round) % 4) {
                case 0:
                    mutex.Lock();
                    break;
                case 1:
                    mutex.Lock(600'000);
                    break;
                case 2:
                    while (!mutex.TryLock()) {
                        std::this_thread::yield();
                    }
                    break;
                default:
                    EXPECT_TRUE(mutex.TryLockFor(600'000));
            }
            ++counter;
            mutex.Release();
        }
    });
    EXPECT_EQ(counter, 4 * kRounds);
}

TEST_F(MutexTest, ResultsOfTheSystemBecomeExceptions) UNCHECKED {
    struct Row {
        int result;
        LockOutcome lock;
        LockOutcome tryLock;
    };
    const Row rows[] = {
        {EAGAIN, {"Max recursions reached", 0}, {"Max recursions reached", 0}},
        {EBUSY, {"Timeout", 1}, {}},
        {ETIMEDOUT, {"Timeout", 1}, {}},
        {EINVAL, {"Lock Error", 2}, {"Lock Error", 2}},
        {EDEADLK, {"Thread already owns lock", 0}, {"Thread already owns lock", 0}},
        {EPERM, {"UNKNOWN ERROR", 0}, {"UNKNOWN ERROR", 0}},
    };
    for (const Row& row : rows) {
        const FailingCall failing("pthread_mutex_trylock", row.result);
        EXPECT_EQ(OutcomeOf([this]() UNCHECKED { mutex.Lock(0); }), row.lock) << row.result;
        EXPECT_EQ(OutcomeOf([this]() UNCHECKED { EXPECT_FALSE(mutex.TryLock()); }), row.tryLock)
            << row.result;
        EXPECT_EQ(OutcomeOf([this]() UNCHECKED { EXPECT_FALSE(mutex.TryLockFor(0)); }), row.tryLock)
            << row.result;
    }
    const FailingCall failing("clock_gettime", -1);
    EXPECT_TRUE(mutex.TryLockFor(1)) << "a free mutex needs no clock";
    mutex.Release();
    const FailingCall busy("pthread_mutex_trylock", EBUSY);
    EXPECT_EQ(OutcomeOf([this]() UNCHECKED { mutex.TryLockFor(1); }),
              (LockOutcome{"clock_gettime failed", 0}));
}

TEST_F(MutexTest, AMutexThatCannotBeMadeThrows) {
    const auto make = [] { const Mutex unnamed(nullptr); };
    EXPECT_EQ(OutcomeOf(make), kNothing);
    {
        const FailingCall failing("pthread_mutexattr_settype", EINVAL);
        EXPECT_EQ(OutcomeOf(make), (LockOutcome{"pthread_mutexattr_settype failed", 0}));
    }
    const FailingCall failing("pthread_mutex_init", ENOMEM);
    EXPECT_EQ(OutcomeOf(make), (LockOutcome{"pthread_mutex_init failed", 0}));
}

TEST_F(MutexTest, AutoLockHoldsTheMutexForItsScope) UNCHECKED {
    {
        const MutexAutoLock outer(&mutex);
        const MutexAutoLock inner(&mutex, 0, true);
        EXPECT_FALSE(IsFree());
    }
    EXPECT_TRUE(IsFree());
    EXPECT_THROW(
        {
            const MutexAutoLock lock(&mutex);
            throw std::string("leaves the scope");
        },
        std::string);
    EXPECT_TRUE(IsFree());
}

TEST_F(MutexTest, AutoLockOfABusyMutexThrowsOrStaysUnlocked) {
    testing::internal::CaptureStdout();
    {
        const auto holder = HeldByAnotherThread();
        EXPECT_EQ(OutcomeOf([this] { const MutexAutoLock lock(&mutex, 0, true); }), kTimeout);
        EXPECT_EQ(OutcomeOf([this] { const MutexAutoLock lock(&mutex, 0, false); }), kNothing);
        EXPECT_FALSE(IsFree());
    }
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "it released what it did not hold";
}

TEST_F(MutexTest, AutoLockReportsAFailedReleaseAndDoesNotThrow) UNCHECKED {
    testing::internal::CaptureStdout();
    {
        const MutexAutoLock lock(&mutex);
        mutex.Release();
    }
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error: MutexAutoLock::~MutexAutoLock");
}

TEST(InterlockedTest, CountersChangeByOneAndReturnTheNewValue) {
    const InterlockedObj object;
    int value = 41;
    EXPECT_EQ(Interlocked::Increment(value), 42);
    EXPECT_EQ(Interlocked::Decrement(value), 41);
    EXPECT_EQ(object.Increment(value), 42);
    EXPECT_EQ(object.Decrement(value), 41);
    EXPECT_EQ(value, 41);

    int shared = 0;
    int own = 0;
    test::InThreads(4, [&](int) {
        for (int round = 0; round < 2'000; ++round) {
            Interlocked::Increment(shared);
            Interlocked::Increment(shared);
            Interlocked::Decrement(shared);
            object.Increment(own);
        }
    });
    EXPECT_EQ(shared, 8'000);
    EXPECT_EQ(own, 8'000);
}

TEST(InterlockedTest, AForkedChildCountsWhateverOtherThreadsDidThen) {
    std::atomic<bool> stop{false};
    std::thread other([&] {
        for (int value = 0; !stop;) {
            Interlocked::Increment(value);
        }
    });
    int failed = 0;
    for (int i = 0; i < 100 && failed == 0; ++i) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::alarm(10);
            int value = 0;
            ::_exit(Interlocked::Increment(value) == 1 ? 0 : 1);
        }
        int status = -1;
        ::waitpid(child, &status, 0);
        failed += status != 0;
    }
    stop = true;
    other.join();
    EXPECT_EQ(failed, 0);
}

TEST(InterlockedTest, AnObjectsMutexHoldsSeveralOperationsTogether) UNCHECKED {
    const InterlockedObj object;
    int value = 0;
    std::promise<void> begun;
    object.Lock();
    std::thread other([&] {
        begun.set_value();
        object.Increment(value);
    });
    begun.get_future().wait();
    object.Increment(value);
    EXPECT_EQ(object.Increment(value), 2);
    object.Unlock();
    other.join();
    EXPECT_EQ(value, 3);
    EXPECT_EQ(OutcomeOf([&]() UNCHECKED { object.Unlock(); }), (LockOutcome{"Thread does not own lock", 0}));
}

}  // namespace
}  // namespace zarip::osa
