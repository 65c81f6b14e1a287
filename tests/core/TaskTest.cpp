// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <mutex>
#include <random>
#include <vector>

#include "support/ErrorOf.h"
#include "support/InThreads.h"
#include "support/LogCapture.h"
#include "support/WaitUntil.h"
#include "zarip/core/AsyncCall.h"
#include "zarip/core/TaskManager.h"
#include "zarip/core/ThreadPool.h"
#include "zarip/osa/Exception.h"
#include "zarip/osa/ITimeSource.h"
#include "zarip/osa/Semaphore.h"
#include "zarip/osa/Thread.h"

namespace zarip::core {
namespace {

using osa::TimeSpan;
using test::ErrorOf;

/// A task that calls a function and counts those of its kind that exist.
class Task : public IVoidDelegate0 {
public:
    explicit Task(
        std::function<void()> function = [] {}, const void* target = nullptr)
        : _function(std::move(function)), _target(target) {
        ++s_alive;
    }
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;
    ~Task() override { --s_alive; }
    void Call() override { _function(); }
    bool Matches(const void* object) const override { return object == _target; }

    static inline std::atomic<int> s_alive{0};

private:
    std::function<void()> _function;
    const void* _target;
};

/// A clock that the test sets.
class FakeClock : public osa::ITimeSource {
public:
    void GetTime(osa::TimeStruct& out) const override {
        const std::lock_guard<std::mutex> lock(_mutex);
        out = _now;
        ++_looks;
    }
    int GetLooks() const {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _looks;
    }
    void SetTime(const osa::TimeStruct& value) override {
        const std::lock_guard<std::mutex> lock(_mutex);
        _now = value;
    }
    void Advance(long long microseconds) {
        const std::lock_guard<std::mutex> lock(_mutex);
        _now += microseconds;
    }

private:
    mutable std::mutex _mutex;
    osa::TimeStruct _now{1'000'000, 0};
    mutable int _looks = 0;
};

class TaskTest : public testing::Test {
protected:
    ~TaskTest() override { EXPECT_EQ(Task::s_alive, 0); }
    std::vector<int> _order;
    Task* Note(int number) {
        return new Task([this, number] { _order.push_back(number); });
    }
};

TEST_F(TaskTest, TasksRunWhenDueAndInTheOrderOfTheirTimes) {
    FakeClock clock;
    TaskManager tasks(&clock, false);
    EXPECT_FALSE(tasks.WaitAndExecuteTask(0));
    tasks.QueueTask(TimeSpan::FromMilliseconds(20), Note(20));
    tasks.QueueTask(TimeSpan::FromMilliseconds(10), Note(10));
    tasks.QueueTask(Note(0));
    tasks.QueueTask(TimeSpan::FromMilliseconds(-5), Note(-5));
    EXPECT_TRUE(tasks.WaitAndExecuteTask(0));
    EXPECT_EQ(_order, std::vector<int>{-5});
    tasks.ExecuteQueuedTasks();
    EXPECT_EQ(_order, (std::vector<int>{-5, 0}));
    clock.Advance(9'999);
    EXPECT_FALSE(tasks.WaitAndExecuteTask(0));
    clock.Advance(100'000);
    tasks.ExecuteQueuedTasks();
    EXPECT_EQ(_order, (std::vector<int>{-5, 0, 10, 20}));
}

TEST_F(TaskTest, AFullQueueRefusesAndDeletesAndStaysUsableForEver) {
    TaskManager tasks;
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 500; ++i) {
            tasks.QueueTask(Note(i));
        }
        EXPECT_EQ(ErrorOf([&] { tasks.QueueTask(Note(500)); }), "maxCount was reached");
        EXPECT_EQ(Task::s_alive, 500);
        tasks.ExecuteQueuedTasks();
        EXPECT_EQ(Task::s_alive, 0);
    }
    for (const long long days : {200 * 365LL, -20'000LL, 100'000'000LL, -100'000'000LL}) {
        EXPECT_EQ(ErrorOf([&] { tasks.QueueTask(TimeSpan::FromDays(days), Note(0)); }), "Invalid parameter");
    }
    EXPECT_EQ(_order.size(), 1500U);
}

TEST_F(TaskTest, TasksOfATargetAreDroppedAlsoByATask) {
    TaskManager tasks;
    int target = 0;
    for (int i = 0; i < 10; ++i) {
        tasks.QueueTask(TimeSpan::FromMilliseconds(-i),
                        new Task([this, i] { _order.push_back(i); }, i % 2 == 0 ? &target : nullptr));
    }
    tasks.QueueTask(TimeSpan::FromSeconds(-1), new Task([&] { tasks.DequeueTasksByTarget(&target); }));
    tasks.ExecuteQueuedTasks();
    EXPECT_EQ(_order, (std::vector<int>{9, 7, 5, 3, 1}));
}

TEST_F(TaskTest, WhatTasksThrowIsLogged) {
    test::LogCapture log(Logger::kError);
    TaskManager tasks;
    tasks.QueueTask(new Task([] { throw std::runtime_error("%s 100%"); }));
    tasks.QueueTask(new Task([] { throw 1; }));
    tasks.ExecuteQueuedTasks();
    EXPECT_EQ(log.Count("Exception running task: %s 100%"), 1);
    EXPECT_EQ(log.Count("Exception running task: unknown"), 1);
}

TEST_F(TaskTest, DeliberatelyAWaitThatEndsWithATaskBecomingDueRunsItAtTheNextCall) {
    TaskManager tasks;
    tasks.QueueTask(TimeSpan::FromMilliseconds(5), Note(1));
    EXPECT_FALSE(tasks.WaitAndExecuteTask(-1));
    EXPECT_TRUE(_order.empty());
    EXPECT_TRUE(tasks.WaitAndExecuteTask(-1));
    EXPECT_EQ(_order, std::vector<int>{1});
}

TEST_F(TaskTest, AWaiterIsWokenByATaskAndByAClockThatJumps) {
    FakeClock clock;
    TaskManager tasks(&clock, false);
    auto worker = std::async(std::launch::async, [&] {
        while (!tasks.WaitAndExecuteTask(-1)) {
        }
    });
    tasks.QueueTask(Note(1));
    worker.get();
    tasks.QueueTask(TimeSpan::FromHours(10), Note(2));
    const int looks = clock.GetLooks();
    auto late = std::async(std::launch::async, [&] { return tasks.WaitAndExecuteTask(-1); });
    // It has seen that the task is not due, and for how long it has to wait.
    ASSERT_TRUE(test::WaitUntil([&] { return clock.GetLooks() == looks + 2; }));
    clock.SetTime(osa::TimeStruct(2'000'000, 0));
    // A wait that ends with a task becoming due, so the task is left to the next call here, too.
    EXPECT_FALSE(late.get());
    EXPECT_EQ(_order, std::vector<int>{1});
    EXPECT_TRUE(tasks.WaitAndExecuteTask(0));
    EXPECT_EQ(_order, (std::vector<int>{1, 2}));
}

TEST_F(TaskTest, EveryWaiterIsWokenHoweverFewTasksMayWait) {
    for (int round = 0; round < 200; ++round) {
        TaskManager tasks(1);
        const auto queue = [&] {
            try {
                tasks.QueueTask(new Task);
            } catch (const osa::Exception&) {
                // The last one is still there.
            }
        };
        std::atomic<int> done{0};
        const test::Threads workers(3, [&](int) {
            tasks.WaitAndExecuteTask(-1);
            ++done;
        });
        for (int i = 0; i < 20; ++i) {
            queue();
            tasks.ExecuteQueuedTasks();  // what a worker was woken for
        }
        ASSERT_TRUE(test::WaitUntil([&] {
            queue();
            return done == 3;
        }));
    }
}

TEST_F(TaskTest, ManyThreadsQueueAndRun) {
    TaskManager tasks(10'000);
    std::atomic<int> ran{0};
    std::atomic<bool> over{false};
    const test::Threads workers(2, [&](int) {
        while (!over) {
            tasks.WaitAndExecuteTask(10);
        }
    });
    test::InThreads(2, [&](int) {
        for (int i = 0; i < 1000; ++i) {
            tasks.QueueTask(TimeSpan::FromMicroseconds(i % 7 * 100), new Task([&] { ++ran; }));
        }
    });
    EXPECT_TRUE(test::WaitUntil([&] { return ran == 2000; }));
    over = true;
}

// With a task that is not due for long, and without: the tasks then wait in different places.
TEST_F(TaskTest, ThePoolHasOneThreadAndEndsAfterWhatIsDue) {
    for (int round = 0; round < 400; ++round) {
        std::atomic<int> ran{0};
        std::string name;
        {
            ThreadPool pool;
            if (round % 4 != 0) {
                pool.GetTaskQueue()->QueueTask(TimeSpan::FromHours(1), new Task([&] { ran = -1; }));
            }
            pool.GetTaskQueue()->QueueTask(
                new Task([&] { name = osa::Thread::CurrentThread::ThreadPtr()->GetName(); }));
            for (int i = 0; i < 8; ++i) {
                pool.GetTaskQueue()->QueueTask(new Task([&] { ++ran; }));
            }
        }
        ASSERT_EQ(ran, 8);
        EXPECT_EQ(name, "ThreadPool");
    }
}

TEST_F(TaskTest, TasksRunInDueOrderAndThoseDueAtTheSameTimeAsTheyWereQueued) {
    FakeClock clock;
    std::mt19937 random(3);
    int target = 0;
    for (const unsigned int times : {3U, 10U, 1'000'000U}) {
        for (int round = 0; round < 30; ++round) {
            TaskManager tasks(&clock, false);
            std::vector<std::pair<int, int>> expected;  // delay and number
            std::vector<std::pair<int, int>> ran;
            for (int i = 0; i < 450; ++i) {
                const int delay = static_cast<int>(random() % times) - 1;
                const bool isDropped = random() % 4 == 0;
                tasks.QueueTask(TimeSpan::FromMicroseconds(delay),
                                new Task([&ran, delay, i] { ran.emplace_back(delay, i); },
                                         isDropped ? &target : nullptr));
                if (!isDropped) {
                    expected.emplace_back(delay, i);
                }
                if (random() % 50 == 0) {
                    tasks.DequeueTasksByTarget(&target);
                }
            }
            tasks.DequeueTasksByTarget(&target);
            clock.Advance(1'000'000);
            tasks.ExecuteQueuedTasks();
            std::sort(expected.begin(), expected.end());
            ASSERT_EQ(ran, expected);
        }
    }
}

// With the real clock, a due time is between the times that are read before and after queuing.
TEST_F(TaskTest, TasksWithAndWithoutDelaysKeepTheOrderOfTheRealClock) {
    using Clock = std::chrono::steady_clock;
    struct Due {
        Clock::time_point earliest;
        Clock::time_point latest;
    };
    TaskManager tasks(2'000);
    std::mt19937 random(5);
    std::vector<Due> due;
    const long long delays[] = {0, 0, 0, 1, 40, 300, 3'000, 9'000};
    while (due.size() < 2'000) {
        const std::size_t i = due.size();
        const long long delay = delays[random() % std::size(delays)];
        const auto asSpan = std::chrono::microseconds(delay);
        due.push_back({Clock::now() + asSpan, {}});
        tasks.QueueTask(TimeSpan::FromMicroseconds(delay), Note(static_cast<int>(i)));
        due.back().latest = Clock::now() + asSpan;
        if (random() % 50 == 0) {
            tasks.ExecuteQueuedTasks();
        }
    }
    EXPECT_TRUE(test::WaitUntil([&] {
        tasks.ExecuteQueuedTasks();
        return _order.size() == due.size();
    }));
    // Whatever ran in one go did so in order; a microsecond is the clock's step.
    Clock::time_point latestBegin;
    for (const int i : _order) {
        const Due& task = due[static_cast<std::size_t>(i)];
        EXPECT_LE(latestBegin, task.latest + std::chrono::microseconds(1));
        latestBegin = std::max(latestBegin, task.earliest);
    }
    _order.clear();
    tasks.QueueTask(Note(1));
    tasks.QueueTask(TimeSpan::FromMilliseconds(-500), Note(0));
    tasks.QueueTask(Note(2));
    tasks.ExecuteQueuedTasks();
    EXPECT_EQ(_order, (std::vector<int>{0, 1, 2}));
}

// It ends the worker; what is still queued is deleted with the pool.
TEST_F(TaskTest, ATaskMayEndItsThread) {
    auto [call, result] = CreateAsyncCall(new Task([] { ::pthread_exit(nullptr); }));
    const std::unique_ptr<AsyncResult> owned(result);
    ThreadPool pool;
    pool.GetTaskQueue()->QueueTask(call);
    EXPECT_EQ(ErrorOf([&] { owned->GetResult(); }), "AsyncCall was deleted without having been called");
    pool.GetTaskQueue()->QueueTask(new Task);
}

TEST_F(TaskTest, APoolHoldsAsManyTasksAsItIsGivenRoomForAndEndsAlsoWhenItIsFull) {
    ThreadPool pool(2);
    const auto queue = [&] { pool.GetTaskQueue()->QueueTask(TimeSpan::FromHours(1), new Task); };
    queue();
    queue();
    EXPECT_EQ(ErrorOf(queue), "maxCount was reached");
}

TEST_F(TaskTest, ATaskMayDestroyItsPool) {
    auto pool = std::make_unique<ThreadPool>();
    osa::Semaphore destroyed("destroyed", 1, 0);
    pool->GetTaskQueue()->QueueTask(TimeSpan::FromHours(1), new Task);
    pool->GetTaskQueue()->QueueTask(new Task([&] {
        pool.reset();
        destroyed.Release();
    }));
    destroyed.Lock();
    EXPECT_TRUE(test::WaitUntil([] { return Task::s_alive == 0; }));
}

TEST_F(TaskTest, AnAsynchronousCallHandsItsOutcomeOver) {
    const auto outcomeOf = [](std::function<void()> function, bool runs) {
        auto [call, result] = CreateAsyncCall(new Task(std::move(function)));
        const std::unique_ptr<AsyncResult> owned(result);
        if (runs) {
            ThreadPool pool;
            pool.GetTaskQueue()->QueueTask(call);
        } else {
            delete call;
        }
        try {
            owned->GetResult();
        } catch (const osa::Exception& e) {
            return e.ToString();
        }
        return std::string("done");
    };
    EXPECT_EQ(outcomeOf([] {}, true), "done");
    EXPECT_EQ(outcomeOf([] { throw std::runtime_error("100%s"); }, true), "100%s");
    EXPECT_EQ(outcomeOf([] { throw 1; }, true), "unknown exception");
    EXPECT_EQ(outcomeOf([] {}, false), "AsyncCall was deleted without having been called");
    auto [call, result] = CreateAsyncCall(new Task([] {}, this));
    EXPECT_TRUE(call->Matches(this));
    delete result;
    delete call;
}

}  // namespace
}  // namespace zarip::core
