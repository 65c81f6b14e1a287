// SPDX-License-Identifier: MIT

// The real-time clock is set while everything waits. The program's own functions of the C library show the
// library another time; the kernel's clock, on which timers of the system run, stays as it is.

#include <dlfcn.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

#include "Harness.h"
#include "Parts.h"
#include "zarip/core/Delegate.h"
#include "zarip/core/TaskManager.h"
#include "zarip/core/ThreadPool.h"
#include "zarip/osa/Mutex.h"
#include "zarip/osa/MutexAutoLock.h"
#include "zarip/osa/Process.h"
#include "zarip/osa/ReadWriteLock.h"
#include "zarip/osa/Semaphore.h"
#include "zarip/osa/UdpSocket.h"

namespace {

std::atomic<long> s_step{0};  // seconds by which the real-time clock is shown wrong

using ClockFunction = int (*)(clockid_t, timespec*);

ClockFunction FindClock() {
    // The name for 64-bit times on a 32-bit machine.
    void* const other = sizeof(long) < sizeof(time_t) ? ::dlsym(RTLD_NEXT, "__clock_gettime64") : nullptr;
    return reinterpret_cast<ClockFunction>(other != nullptr ? other : ::dlsym(RTLD_NEXT, "clock_gettime"));
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    static const ClockFunction s_clock = FindClock();
    const int result = s_clock(clock, time);
    if (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE) {
        time->tv_sec += s_step.load(std::memory_order_relaxed);
    }
    return result;
}

int gettimeofday(timeval* time, void* /*zone*/) noexcept {
    timespec now{};
    const int result = clock_gettime(CLOCK_REALTIME, &now);
    time->tv_sec = now.tv_sec;
    time->tv_usec = static_cast<suseconds_t>(now.tv_nsec / 1000);
    return result;
}

time_t time(time_t* out) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (out != nullptr) {
        *out = now.tv_sec;
    }
    return now.tv_sec;
}
}

namespace zarip::reliability {
namespace {

/// A wait that takes `ms`, unless the clock disturbs it.
struct Wait {
    const char* name;
    int ms;
    std::function<void()> wait;
};

template <class Action>
void Ignore(Action action) {
    try {
        action();
    } catch (const std::exception&) {  // the time-out
    }
}

bool IsBefore(const std::atomic<bool>& done) {
    return test::WaitUntil([&] { return done.load(); });
}

/// Waits for longer than a second are not made of locks here: their deadlines are on the real-time clock, so
/// a clock that is set ahead ends them early.
std::vector<Wait> MakeWaits(osa::Mutex& held, msgbus::MsgBus& client) {
    constexpr int kMs = 700;
    return {
        {"Mutex", kMs, [&held] { held.TryLockFor(kMs); }},
        {"Semaphore", kMs,
         [] {
             osa::Semaphore semaphore("clock", 1, 0);
             semaphore.TryLock(kMs);
         }},
        {"TaskManager", kMs,
         [] {
             core::TaskManager manager;
             manager.QueueTask(osa::TimeSpan::FromMilliseconds(kMs), core::MakeDelegate([] {}));
             manager.WaitAndExecuteTask(-1);
         }},
        {"ThreadPool", 2500,
         [] {
             std::atomic<bool> done{false};
             core::ThreadPool pool;
             pool.GetTaskQueue()->QueueTask(osa::TimeSpan::FromMilliseconds(2500),
                                            core::MakeDelegate([&] { done = true; }));
             IsBefore(done);
         }},
        {"call", 1500,
         [&client] {
             const msgbus::MsgBusObjectSelector hung("org.camera.hung", kPath, kInterface);
             Ignore([&] { test::Ask(client, hung, "Hang", "x", 1500); });
         }},
        {"Process", kMs,
         [] {
             osa::Process::RunOptions options;
             options.timeoutMs = kMs;
             osa::Process::Run("/bin/sleep", {"60"}, options);
         }},
        {"UdpSocket", 2000,
         [] {
             const osa::UdpSocket socket("127.0.0.1", 0, 0);
             unsigned char byte = 0;
             osa::UdpSocket::Info info;
             Ignore([&] { socket.RecvFrom(&byte, 1, info, 2); });
         }},
    };
}

/// Runs all at once; by how many milliseconds each ended late.
std::vector<long long> WaitWhileTheClockIsSet(const std::vector<Wait>& waits) {
    std::vector<long long> late(waits.size());
    std::vector<std::thread> threads;
    std::atomic<std::size_t> left{waits.size()};
    for (std::size_t i = 0; i < waits.size(); ++i) {
        threads.emplace_back([&, i] {
            const auto start = std::chrono::steady_clock::now();
            waits[i].wait();
            late[i] = MillisecondsSince(start) - waits[i].ms;
            --left;
        });
    }
    for (std::size_t step = 0; left > 0; ++step) {
        constexpr long kSteps[] = {3600, 0, -3600, 0};
        s_step = kSteps[step % 4];
        std::this_thread::sleep_for(std::chrono::milliseconds(37));
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    s_step = 0;
    return late;
}

}  // namespace

ROW(Clock,
    "The real-time clock is set an hour ahead and back all the time: time-outs of locks below a second, "
    "delayed tasks, time-outs of calls, processes and sockets end within 20 ms of their time in the quietest "
    "round (the clock is the program's own; timers of the system run on the kernel's, which is not set)",
    30) {
    test::PrivateBus::Get();
    msgbus::MsgBus hung;
    hung.RegisterDestinationName("org.camera.hung");
    msgbus::MsgBus client;
    osa::Mutex held("held");
    const osa::MutexAutoLock lock(&held);
    const std::vector<Wait> waits = MakeWaits(held, client);
    std::vector<long long> least(waits.size(), 1'000'000);
    long long worst = 0;
    const int rounds = run.Count(20, 3);
    for (int round = 0; round < rounds; ++round) {
        const std::vector<long long> late = WaitWhileTheClockIsSet(waits);
        for (std::size_t i = 0; i < waits.size(); ++i) {
            least[i] = std::min(least[i], std::abs(late[i]));
            worst = std::max(worst, std::abs(late[i]));
            run.Expect(late[i] >= -1 && late[i] < 900, "%s: %lld ms late", waits[i].name, late[i]);
        }
    }
    for (std::size_t i = 0; i < waits.size(); ++i) {
        // What a busy machine adds is not in every round; what the clock adds would be.
        run.Expect(least[i] <= 20, "%s: %lld ms off in every round", waits[i].name, least[i]);
    }
    run.Figure("%d rounds of %zu waits, at best each at most %lld ms off, at worst %lld ms", rounds,
               waits.size(), *std::max_element(least.begin(), least.end()), worst);
}

}  // namespace zarip::reliability
