// SPDX-License-Identifier: MIT

// Tasks, timers and the thread pool, beside boost::asio and a plain priority queue.
//
// It measures how long it takes to hand work to a thread and to run tasks that are due at mixed times, and
// how late the callback of a timer begins.

#include <sched.h>
#include <semaphore.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <queue>
#include <random>
#include <thread>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <zarip/core/Delegate.h>
#include <zarip/core/TaskManager.h>
#include <zarip/core/ThreadPool.h>
#include <zarip/osa/ITimerCallback.h>
#include <zarip/osa/Timer.h>

#include "Rounds.h"

namespace {

using zarip::osa::TimeSpan;

/// The work: counts down, and wakes the one who waits for the last.
class Countdown {
public:
    Countdown() { ::sem_init(&_done, 0, 0); }
    Countdown(const Countdown&) = delete;
    Countdown& operator=(const Countdown&) = delete;
    ~Countdown() { ::sem_destroy(&_done); }

    void Expect(int count) { _left = count; }
    void Work() {
        if (--_left == 0) {
            ::sem_post(&_done);
        }
    }
    void Wait() {
        while (::sem_wait(&_done) != 0) {
        }
    }

private:
    sem_t _done{};
    std::atomic<int> _left{0};
};

void PinToOneCpu() {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(0, &cpus);
    ::sched_setaffinity(0, sizeof(cpus), &cpus);
}

void HandOver(const bench::Options& options, int burst) {
    Countdown countdown;
    zarip::core::ThreadPool pool;
    boost::asio::io_context context;
    const auto guard = boost::asio::make_work_guard(context);
    std::thread worker([&context] { context.run(); });

    bench::Rounds rounds(
        burst == 1 ? "A task handed to a waiting worker, one CPU" : "400 tasks handed to a worker, one CPU",
        options);
    rounds.Add(
        "boost::asio::post",
        [&] {
            countdown.Expect(burst);
            for (int task = 0; task < burst; ++task) {
                boost::asio::post(context, [&countdown] { countdown.Work(); });
            }
            countdown.Wait();
        },
        static_cast<std::size_t>(burst));
    rounds.Add(
        "zarip::core::ThreadPool, a method",
        [&] {
            countdown.Expect(burst);
            for (int task = 0; task < burst; ++task) {
                pool.GetTaskQueue()->QueueTask(zarip::core::MakeDelegate(&countdown, &Countdown::Work));
            }
            countdown.Wait();
        },
        static_cast<std::size_t>(burst));
    rounds.Add(
        "zarip::core::ThreadPool, a lambda",
        [&] {
            countdown.Expect(burst);
            for (int task = 0; task < burst; ++task) {
                pool.GetTaskQueue()->QueueTask(zarip::core::MakeDelegate([&countdown] { countdown.Work(); }));
            }
            countdown.Wait();
        },
        static_cast<std::size_t>(burst));
    rounds.Run();
    context.stop();
    worker.join();
}

/// What one writes without a library: a heap under a mutex, a condition variable for the worker.
class PlainQueue {
public:
    void Post(std::chrono::microseconds delay, std::function<void()> task) {
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            _queue.push({std::chrono::steady_clock::now() + delay, std::move(task)});
        }
        _changed.notify_one();
    }

    void RunDue() {
        std::unique_lock<std::mutex> lock(_mutex);
        while (!_queue.empty() && _queue.top().due <= std::chrono::steady_clock::now()) {
            const std::function<void()> task = std::move(const_cast<Item&>(_queue.top()).task);
            _queue.pop();
            lock.unlock();
            task();
            lock.lock();
        }
    }

private:
    struct Item {
        std::chrono::steady_clock::time_point due;
        std::function<void()> task;
        bool operator<(const Item& other) const { return other.due < due; }
    };
    std::mutex _mutex;
    std::condition_variable _changed;
    std::priority_queue<Item> _queue;
};

void MixedTimes(const bench::Options& options) {
    constexpr int kTasks = 25'000;
    std::vector<long long> delays(kTasks);
    std::mt19937 random(1);
    for (auto& delay : delays) {
        delay = -static_cast<long long>(random() % 1'000'000);  // in the past: what counts is the order
    }
    Countdown countdown;
    zarip::core::TaskManager tasks(30'000);
    PlainQueue plain;
    bench::Rounds rounds("25,000 tasks due at mixed times, queued and run, ns a task", options);
    rounds.Add(
        "std::priority_queue, mutex, condition variable",
        [&] {
            countdown.Expect(kTasks);
            for (const long long delay : delays) {
                plain.Post(std::chrono::microseconds(delay), [&countdown] { countdown.Work(); });
            }
            plain.RunDue();
            countdown.Wait();
        },
        kTasks);
    rounds.Add(
        "zarip::core::TaskManager",
        [&] {
            countdown.Expect(kTasks);
            for (const long long delay : delays) {
                tasks.QueueTask(TimeSpan::FromMicroseconds(delay),
                                zarip::core::MakeDelegate(&countdown, &Countdown::Work));
            }
            tasks.ExecuteQueuedTasks();
            countdown.Wait();
        },
        kTasks);
    rounds.Run();
}

class Latency final : public zarip::osa::ITimerCallback {
public:
    Latency() { ::sem_init(&_done, 0, 0); }
    void OnTimer(const zarip::osa::TimeStruct& expiry, void* /*userData*/) override {
        const zarip::osa::TimeStruct now(true);
        const auto microseconds = [](const zarip::osa::TimeStruct& time) {
            return static_cast<double>(time.seconds) * 1e6 + static_cast<double>(time.microseconds);
        };
        _late.push_back(microseconds(now) - microseconds(expiry));
        ::sem_post(&_done);
    }
    void Wait() {
        while (::sem_wait(&_done) != 0) {
        }
    }
    std::vector<double> _late;

private:
    sem_t _done{};
};

void TimerLatency(const bench::Options& options) {
    Latency latency;
    zarip::osa::Timer timer(&latency);
    for (int i = 0; i < options.rounds * 40; ++i) {
        zarip::osa::TimeStruct expiry(true);
        expiry += 500 + i % 7 * 130;
        timer.Start(expiry, nullptr);
        latency.Wait();
    }
    std::printf("A timer's callback begins after its time, us: median %.0f, earliest %.0f, latest %.0f\n\n",
                bench::Median(latency._late), *std::min_element(latency._late.begin(), latency._late.end()),
                *std::max_element(latency._late.begin(), latency._late.end()));
}

}  // namespace

int main(int argc, char** argv) {
    const bench::Options options = bench::ParseOptions(argc, argv);
    TimerLatency(options);
    MixedTimes(options);
    PinToOneCpu();
    HandOver(options, 1);
    HandOver(options, 400);
}
