// SPDX-License-Identifier: MIT

#include <zarip/osa/ReadWriteLock.h>

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>

#include "osa/LockTestSupport.h"
#include "support/InThreads.h"

namespace zarip::osa {
namespace {

const LockOutcome kDone;
const LockOutcome kBusy{"Semaphore::Lock timeout after 0ms", 1};
const LockOutcome kNoLocks{"No locks", 0};

struct ReadWriteLockTest : testing::Test {
    ReadWriteLock lock{"ReadWriteLockTest"};

    LockOutcome Read() {
        return OutcomeOf([this] { lock.ReadLock(0); });
    }
    LockOutcome Write() {
        return OutcomeOf([this] { lock.WriteLock(0); });
    }
    LockOutcome Release() {
        return OutcomeOf([this] { lock.Release(); });
    }
    void WaitUntilAWriterWaits() {
        while (Read() == kDone) {
            lock.Release();
            std::this_thread::yield();
        }
    }
};

TEST_F(ReadWriteLockTest, ReleasingWhatNobodyHoldsThrows) {
    EXPECT_EQ(Release(), kNoLocks);
    lock.ReadLock();
    lock.Release();
    EXPECT_EQ(Release(), kNoLocks);
    lock.WriteLock();
    lock.Release();
    EXPECT_EQ(Release(), kNoLocks);
}

TEST_F(ReadWriteLockTest, ManyReadersOrOneWriter) {
    lock.ReadLock();
    EXPECT_EQ(OnAnotherThread([this] { return Read(); }), kDone);
    EXPECT_EQ(Write(), kBusy);
    // The refused writer holds nothing.
    EXPECT_EQ(Read(), kDone);
    lock.Release();
    lock.Release();
    EXPECT_EQ(Write(), kBusy);
    lock.Release();

    EXPECT_EQ(Write(), kDone);
    EXPECT_EQ(Read(), kBusy);
    EXPECT_EQ(OnAnotherThread([this] { return Write(); }), kBusy);
    // Any thread may release: the state alone decides.
    EXPECT_EQ(OnAnotherThread([this] { return Release(); }), kDone);
    EXPECT_EQ(Read(), kDone);
    lock.Release();
    EXPECT_EQ(Release(), kNoLocks);
}

TEST_F(ReadWriteLockTest, AWaitingWriterComesBeforeNewReadersAndAfterTheLastOldOne) {
    std::string order;
    lock.ReadLock();
    lock.ReadLock();
    std::thread writer([&] {
        lock.WriteLock();
        order += "writer";
        lock.Release();
    });
    WaitUntilAWriterWaits();
    std::promise<void> begun;
    std::thread reader([&] {
        begun.set_value();
        lock.ReadLock();
        lock.Release();
    });
    begun.get_future().wait();
    EXPECT_EQ(Read(), kBusy);
    EXPECT_EQ(Write(), kBusy);
    lock.Release();
    EXPECT_EQ(Read(), kBusy);
    order += "reader ";
    lock.Release();
    writer.join();
    reader.join();
    EXPECT_EQ(order, "reader writer");
    EXPECT_EQ(Release(), kNoLocks);
}

TEST_F(ReadWriteLockTest, AWriterThatTimesOutLetsTheOthersGoOn) {
    lock.ReadLock();
    EXPECT_EQ(OutcomeOf([this] { lock.WriteLock(20); }),
              (LockOutcome{"Semaphore::Lock timeout after 20ms", 1}));
    EXPECT_EQ(Read(), kDone);
    lock.Release();
    lock.Release();
    EXPECT_EQ(Write(), kDone);
    EXPECT_EQ(OutcomeOf([this] { lock.ReadLock(20); }),
              (LockOutcome{"Semaphore::Lock timeout after 20ms", 1}));
    lock.Release();
    EXPECT_EQ(Release(), kNoLocks);
}

TEST_F(ReadWriteLockTest, WritersSeeNobodyElseAndReadersNoWriter) {
    std::atomic<int> readers{0};
    std::atomic<int> faults{0};
    int writes = 0;
    test::InThreads(4, [&](int i) {
        for (int round = 0; round < 1'000; ++round) {
            if ((round + i) % 4 == 0) {
                lock.WriteLock();
                faults += readers != 0;
                ++writes;
            } else {
                lock.ReadLock();
                ++readers;
                const int before = writes;
                std::this_thread::yield();
                faults += writes != before;
                --readers;
            }
            lock.Release();
        }
    });
    EXPECT_EQ(faults, 0);
    EXPECT_EQ(writes, 1'000);
    EXPECT_EQ(Release(), kNoLocks);
}

}  // namespace
}  // namespace zarip::osa
