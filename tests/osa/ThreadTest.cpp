// SPDX-License-Identifier: MIT

#include <zarip/core/ILogAppender.h>
#include <zarip/core/Logger.h>
#include <zarip/osa/Exception.h>
#include <zarip/osa/Runnable.h>
#include <zarip/osa/Semaphore.h>
#include <zarip/osa/Signal.h>
#include <zarip/osa/Thread.h>

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "osa/FailingCalls.h"
#include "osa/LockTestSupport.h"
#include "support/InThreads.h"

namespace zarip::osa {
namespace {

class Body final : public Runnable {
public:
    explicit Body(std::function<void()> work = [] {}) : _work(std::move(work)) {}
    void Run() override { _work(); }
    void Stop() override {}

private:
    std::function<void()> _work;
};

template <class Operation>
std::string TextOf(Operation operation) {
    try {
        operation();
    } catch (const Exception& e) {
        return e.ToString();
    }
    return "";
}

void RunAndJoin(const char* name, std::function<void()> work, signed char priority = 0) {
    Body body(std::move(work));
    Thread thread(name, &body, 0, priority);
    thread.Run();
    EXPECT_EQ(thread.Join(), 0);
}

TEST(ThreadTest, StackSizesAreRoundedUp) {
    const std::pair<unsigned int, unsigned int> rows[] = {{0, 65'536},      {65'535, 65'536},
                                                          {65'536, 65'536}, {65'537, 69'632},
                                                          {70'000, 73'728}, {1'048'576, 1'048'576}};
    for (const auto& [asked, rounded] : rows) {
        std::size_t stack = 0;
        std::size_t guard = 0;
        Body body([&] {
            pthread_attr_t attributes;
            pthread_getattr_np(pthread_self(), &attributes);
            pthread_attr_getstacksize(&attributes, &stack);
            pthread_attr_getguardsize(&attributes, &guard);
            pthread_attr_destroy(&attributes);
        });
        Thread thread("stack", &body, asked, 0);
        EXPECT_EQ(thread.GetStackSize(), rounded) << asked;
        EXPECT_EQ(thread.GetMinStackSize(), 65'536U);
        thread.Run();
        EXPECT_EQ(thread.Join(), 0);
        EXPECT_GE(stack, rounded) << asked;
        EXPECT_EQ(guard, 131'072U);
    }
}

TEST(ThreadTest, StartsWhenItIsRun) {
    std::atomic<bool> released{false};
    std::atomic<int> early{0};
    std::atomic<int> ran{0};
    Body body([&] {
        early += !released;
        ++ran;
    });
    std::vector<std::unique_ptr<Thread>> threads;
    for (int i = 0; i < 50; ++i) {
        threads.push_back(std::make_unique<Thread>("suspended", &body, 0, 0));
    }
    released = true;
    for (const auto& thread : threads) {
        // Whoever releases it need not be its creator.
        OnAnotherThread([&] { thread->Run(); });
        EXPECT_EQ(TextOf([&] { thread->Run(); }), "Invalid Thread Context");
        EXPECT_EQ(thread->Join(), 0);
        EXPECT_EQ(thread->Join(), EINVAL);
        EXPECT_EQ(TextOf([&] { thread->Run(); }), "Invalid Thread Context");
    }
    EXPECT_EQ(early, 0);
    EXPECT_EQ(ran, 50);
}

TEST(ThreadTest, AThreadNeverRunEndsWithItsObject) {
    std::atomic<int> ran{0};
    Body body([&] { ++ran; });
    for (int i = 0; i < 200; ++i) {
        auto thread = std::make_unique<Thread>("never run", &body, 0, 0);
        EXPECT_EQ(body.GetCurrentThread(), thread.get());
        if (i % 2 == 0) {
            OnAnotherThread([&] { thread.reset(); });
        }
        thread.reset();
        EXPECT_EQ(body.GetCurrentThread(), nullptr);
    }
    EXPECT_EQ(ran, 0);
}

TEST(ThreadTest, AThreadOutlivesItsObject) {
    Semaphore begun("begun", 1, 0);
    Semaphore go("go", 1, 0);
    std::promise<Thread*> found;
    Body body([&] {
        begun.Release();
        go.Lock();
        found.set_value(Thread::CurrentThread::ThreadPtr());
    });
    auto thread = std::make_unique<Thread>("outlives", &body, 0, 0);
    thread->Run();
    begun.Lock();
    thread.reset();
    EXPECT_EQ(body.GetCurrentThread(), nullptr);
    go.Release();
    EXPECT_EQ(found.get_future().get(), nullptr);
}

TEST(ThreadTest, ABodyFindsItsThreadAndItsName) {
    std::string longName = "a name beyond what the kernel keeps";
    Thread* found = nullptr;
    char kernelName[16] = {};
    bool isOwnId = false;
    Body body;
    Thread* self = nullptr;
    body = Body([&] {
        found = Thread::CurrentThread::ThreadPtr();
        ::prctl(PR_GET_NAME, kernelName);
        isOwnId = pthread_equal(self->GetID(), pthread_self()) != 0;
    });
    EXPECT_EQ(body.GetCurrentThread(), nullptr);
    Thread thread(longName.c_str(), &body, 0, 0);
    self = &thread;
    longName.assign("overwritten");
    EXPECT_EQ(thread.GetName(), "a name beyond what the kernel keeps");
    EXPECT_EQ(body.GetCurrentThread(), &thread);
    // It is the id of the caller, not that of the object's thread.
    EXPECT_TRUE(pthread_equal(thread.GetID(), pthread_self()));
    thread.Run();
    EXPECT_EQ(thread.Join(), 0);
    EXPECT_EQ(found, &thread);
    EXPECT_TRUE(isOwnId);
    EXPECT_STREQ(kernelName, "a name beyond w");
}

TEST(ThreadTest, ARunnableCopyHasNoThreadAndAnAssignedOneTheSame) {
    Body original;
    const Thread thread("runnable", &original, 0, 0);
    const Body copy(original);
    Body assigned;
    assigned = original;
    EXPECT_EQ(copy.GetCurrentThread(), nullptr);
    EXPECT_EQ(assigned.GetCurrentThread(), &thread);
}

TEST(ThreadTest, TheLoadingThreadIsWrapped) {
    Thread* const main = Thread::CurrentThread::ThreadPtr();
    ASSERT_NE(main, nullptr);
    EXPECT_EQ(main->GetName(), "ZARIP");
    EXPECT_STREQ(Thread::kMainThreadName, "ZARIP");
    EXPECT_EQ(main->GetStackSize(), 0U);
    EXPECT_EQ(TextOf([&] { main->Run(); }), "Invalid Thread Context");
}

TEST(ThreadTest, ThreadsMadeElsewhereHaveNoObject) {
    EXPECT_EQ(OnAnotherThread([] { return Thread::CurrentThread::ThreadPtr(); }), nullptr);

    // Also when the system gives them the id of a thread whose object is still there, as it does for a stack
    // of the same size.
    Body body;
    Thread joined("joined", &body, 0, 0);
    joined.Run();
    EXPECT_EQ(joined.Join(), 0);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, joined.GetStackSize() + 131'072);
    pthread_t id;
    const auto ask = [](void*) -> void* { return Thread::CurrentThread::ThreadPtr(); };
    ASSERT_EQ(pthread_create(&id, &attributes, ask, nullptr), 0);
    pthread_attr_destroy(&attributes);
    void* found = &joined;
    ASSERT_EQ(pthread_join(id, &found), 0);
    EXPECT_EQ(found, nullptr);
}

TEST(ThreadTest, AnOldObjectLeavesTheThreadThatGotItsIdAlone) {
    for (int i = 0; i < 100; ++i) {
        Body nothing;
        auto old = std::make_unique<Thread>("old", &nothing, 0, 0);
        old->Run();
        EXPECT_EQ(old->Join(), 0);

        Thread* found = nullptr;
        char kernelName[16] = {};
        Body body([&] {
            found = Thread::CurrentThread::ThreadPtr();
            ::prctl(PR_GET_NAME, kernelName);
        });
        Thread young("young", &body, 0, 0);
        old.reset();
        young.Run();
        EXPECT_EQ(young.Join(), 0);
        ASSERT_EQ(found, &young);
        ASSERT_STREQ(kernelName, "young");
    }
}

TEST(ThreadTest, TimeSharingPrioritiesAreNiceValues) {
    const int ours = ::getpriority(PRIO_PROCESS, 0);
    Semaphore begun("begun", 1, 0);
    Semaphore go("go", 1, 0);
    int atStart = -1;
    int asked = -1;
    int afterOthers = -1;
    int afterOwn = -1;
    int afterCurrent = -1;
    Thread* self = nullptr;
    Body body([&] {
        atStart = ::getpriority(PRIO_PROCESS, 0);
        asked = self->GetPriority();
        begun.Release();
        go.Lock();
        afterOthers = Thread::CurrentThread::GetPriority();
        self->SetPriority(7);
        afterOwn = ::getpriority(PRIO_PROCESS, 0);
        Thread::CurrentThread::SetPriority(9);
        afterCurrent = self->GetPriority();
    });
    Thread thread("nice", &body, 0, 5);
    self = &thread;
    thread.Run();
    begun.Lock();
    EXPECT_EQ(TextOf([&] { thread.GetPriority(); }),
              "Can't get priority from a different (SCHED_OTHER) thread");
    thread.SetPriority(8);
    go.Release();
    EXPECT_EQ(thread.Join(), 0);
    EXPECT_EQ(atStart, 5);
    EXPECT_EQ(asked, 5);
    EXPECT_EQ(afterOthers, 5) << "the nice value is the thread's own business";
    EXPECT_EQ(afterOwn, 7);
    EXPECT_EQ(afterCurrent, 9);
    EXPECT_EQ(::getpriority(PRIO_PROCESS, 0), ours);
}

TEST(ThreadTest, RealTimePrioritiesAreRoundRobin) {
    const bool allowed = OnAnotherThread([] {
        sched_param parameter{};
        parameter.sched_priority = 1;
        return pthread_setschedparam(pthread_self(), SCHED_RR, &parameter) == 0;
    });
    if (!allowed) {
        GTEST_SKIP() << "real-time priorities are refused here";
    }
    ASSERT_EQ(::sched_get_priority_min(SCHED_RR), 1);
    ASSERT_EQ(::sched_get_priority_max(SCHED_RR), 99);
    const auto system = [] {
        int policy = 0;
        sched_param parameter{};
        pthread_getschedparam(pthread_self(), &policy, &parameter);
        return policy == SCHED_RR ? parameter.sched_priority : -policy;
    };
    const std::pair<signed char, int> rows[] = {{-21, 1}, {-22, 2}, {-70, 50}, {-119, 99}};
    for (const auto& [priority, expected] : rows) {
        int atStart = -1;
        signed char own = 0;
        Semaphore begun("begun", 1, 0);
        Semaphore go("go", 1, 0);
        Body body([&] {
            atStart = system();
            own = Thread::CurrentThread::GetPriority();
            begun.Release();
            go.Lock();
        });
        Thread thread("real time", &body, 0, priority);
        thread.Run();
        begun.Lock();
        EXPECT_EQ(atStart, expected);
        EXPECT_EQ(own, priority);
        EXPECT_EQ(thread.GetPriority(), priority);
        // Beyond the range: refused by the system, and ignored.
        thread.SetPriority(-120);
        EXPECT_EQ(thread.GetPriority(), priority);
        thread.SetPriority(-30);
        EXPECT_EQ(thread.GetPriority(), -30);
        go.Release();
        EXPECT_EQ(thread.Join(), 0);
    }
    RunAndJoin("changes", [&] {
        Thread::CurrentThread::SetPriority(-21);
        EXPECT_EQ(system(), 1);
        Thread::CurrentThread::SetPriority(0);
        EXPECT_EQ(system(), 0);
    });
}

TEST(ThreadTest, PrioritiesThatTheSystemDoesNotTellThrow) {
    Body body;
    Thread thread("priority", &body, 0, 0);
    const FailingCall failing("pthread_getschedparam", ESRCH);
    EXPECT_EQ(TextOf([&] { thread.GetPriority(); }), "Priority Error");
    EXPECT_EQ(TextOf([&] { Thread::CurrentThread::GetPriority(); }), "Priority Error");
}

// A child must be able to ask, as logging does, although a thread was being made at the moment of the fork.
TEST(ThreadTest, AForkedChildCanAskForItsThread) {
    int status = -1;
    std::thread([&status] {
        Body body;
        const FailingCall failing("pthread_create", EINVAL, [&status] {
            const pid_t child = ::fork();
            if (child == 0) {
                ::alarm(20);
                ::_exit(Thread::CurrentThread::ThreadPtr() == nullptr ? 0 : 1);
            }
            ::waitpid(child, &status, 0);
        });
        TextOf([&] { const Thread thread("refused", &body, 0, 0); });
    }).join();
    EXPECT_EQ(status, 0);
}

TEST(ThreadTest, AThreadThatCannotBeMadeThrows) {
    const std::pair<const char*, const char*> rows[] = {
        {"pthread_attr_setstacksize", "Set Stack Size failed"},
        {"pthread_attr_setguardsize", "Set Stack Guard Size failed"},
        {"pthread_attr_setinheritsched", "Set Inherit Sched failed"},
        {"pthread_attr_setschedpolicy", "Set Sched Policy failed"},
        {"pthread_create", "Create Thread Error"}};
    for (const auto& [function, text] : rows) {
        Body body;
        {
            const FailingCall failing(function, EINVAL);
            EXPECT_EQ(TextOf([&] { const Thread thread("refused", &body, 0, 0); }), text);
        }
        EXPECT_EQ(body.GetCurrentThread(), nullptr);
        Thread thread("accepted", &body, 0, 0);
        thread.Run();
        EXPECT_EQ(thread.Join(), 0);
    }
}

TEST(ThreadTest, SignalsReachTheThreadAndInterruptItsSleep) {
    struct sigaction action {};
    struct sigaction old {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGUSR2, &action, &old), 0);

    std::atomic<bool> done{false};
    int number = 0;
    Body body([&] {
        try {
            Thread::CurrentThread::Sleep(3'600'000);
        } catch (const Signal& signal) {
            number = signal.GetSignal();
        }
        done = true;
    });
    Thread thread("sleeper", &body, 0, 0);
    thread.Run();
    EXPECT_EQ(TextOf([&] { thread.Signal(9'999); }), "invalid signal");
    while (!done) {
        EXPECT_EQ(thread.Signal(SIGUSR2), 0);
        std::this_thread::yield();
    }
    EXPECT_EQ(thread.Join(), 0);
    EXPECT_EQ(number, 2) << "the number is the same for every signal";
    EXPECT_EQ(TextOf([&] { thread.Signal(SIGUSR2); }), "invalid pid");
    ::sigaction(SIGUSR2, &old, nullptr);
}

TEST(ThreadTest, SleepsLastAsLongAsAsked) {
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    Thread::CurrentThread::MicroSleep(1'500);
    Thread::CurrentThread::Sleep(2);
    Thread::CurrentThread::Yield();
    EXPECT_GE(Clock::now() - begin, std::chrono::microseconds(3'500));
    // 4,294,968 ms are 704 us in 32 bits; more than an hour would outlast the test's time limit.
    Thread::CurrentThread::Sleep(4'294'968);
}

TEST(ThreadTest, ManyThreadsComeAndGo) {
    std::atomic<int> ran{0};
    test::InThreads(4, [&](int) {
        for (int round = 0; round < 100; ++round) {
            Thread* found = nullptr;
            Body body([&] { found = Thread::CurrentThread::ThreadPtr(); });
            Thread thread("comes and goes", &body, 0, 0);
            thread.Run();
            EXPECT_EQ(thread.Join(), 0);
            EXPECT_EQ(found, &thread);
            ++ran;
        }
    });
    EXPECT_EQ(ran, 400);
}

/// Writes the logger's name and the message to standard error.
class ToStderr final : public core::ILogAppender {
public:
    void AppendV(core::Logger::LogLevel level, const char*, const char* loggerName, const char* format,
                 va_list args) const override ZARIP_PRINTF(5, 0) {
        std::fprintf(stderr, "%s/%d: ", loggerName, static_cast<int>(level));
        std::vfprintf(stderr, format, args);
        std::fputc('\n', stderr);
    }
};

TEST(ThreadDeathTest, WhatABodyThrowsIsLoggedAndEndsTheProcess) {
    const auto runBody = [](std::function<void()> work) {
        const ToStderr appender;
        core::Logger::AddAppender(&appender, false);
        RunAndJoin("thrower", std::move(work));
    };
    EXPECT_DEATH(runBody([] { throw std::runtime_error("x%s"); }),
                 "ZARIP/3: Unhandled exception from thread entry point: x%s\n"
                 "ZARIP/3: Application will terminate\n");
    EXPECT_DEATH(runBody([] { throw 5; }),
                 "ZARIP/3: Unhandled exception from thread entry point: unknown\n"
                 "ZARIP/3: Application will terminate\n");
}

}  // namespace
}  // namespace zarip::osa
