// SPDX-License-Identifier: MIT

// Processes end while objects of every kind are alive.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/wait.h>

#include <memory>

#include "Harness.h"
#include "Parts.h"
#include "zarip/core/Delegate.h"
#include "zarip/core/Logger.h"
#include "zarip/core/ThreadPool.h"
#include "zarip/osa/ITimerCallback.h"
#include "zarip/osa/Process.h"
#include "zarip/osa/Timer.h"
#include "zarip/osa/UdpServer.h"

namespace zarip::reliability {
namespace {

class TimerCount final : public osa::ITimerCallback {
public:
    void OnTimer(const osa::TimeStruct&, void*) override { ++count; }
    std::atomic<int> count{0};
};

/// One object of every kind that has a thread.
struct World {
    World() {
        datagrams.Start(&counter);
        timer.Start(osa::TimeStruct(0, 1000), nullptr);
        client.StartServer();
        SendSignal(client);
        pool.GetTaskQueue()->QueueTask(osa::TimeSpan::FromHours(1), core::MakeDelegate([] {}));
        web.handler.delayMs = 1;
    }
    Subscriber subscriber;
    msgbus::MsgBus client;
    WebServer web;
    TimerCount expired;
    osa::Timer timer{&expired};
    core::ThreadPool pool;
    DatagramCounter counter;
    osa::UdpServer datagrams{"127.0.0.1", 0, 2048, 0};
};

/// Never returns; `way` is one of four.
[[noreturn]] void EndInOneWay(int way) {
    ::alarm(20);
    static std::unique_ptr<World> s_world;  // ends with the process, in some of the ways
    auto world = std::make_unique<World>();
    switch (way % 4) {
        case 0:
            static_cast<void>(world.release());
            std::exit(0);
        case 1:
            s_world = std::move(world);
            std::exit(0);
        case 2: {
            core::ThreadPool& pool = world.release()->pool;
            pool.GetTaskQueue()->QueueTask(core::MakeDelegate([] { std::exit(0); }));
            for (;;) {
                ::pause();
            }
        }
        default:
            world.reset();
            core::Logger::Shutdown();
            std::exit(0);
    }
}

/// Starts children before the process itself has anything that would end with them, such as the bus.
class Starter {
public:
    explicit Starter(int count) {
        if (::pipe2(_address, O_CLOEXEC) != 0 || ::pipe2(_result, O_CLOEXEC) != 0) {
            std::abort();
        }
        _pid = ::fork();
        if (_pid == 0) {
            StartAll(count);
        }
    }
    Starter(const Starter&) = delete;
    Starter& operator=(const Starter&) = delete;
    ~Starter() { ::waitpid(_pid, nullptr, 0); }

    /// Returns how many children have failed, or -1 if that is not known.
    int Run(const std::string& address) {
        int failed = -1;
        if (::write(_address[1], address.c_str(), address.size() + 1) < 0 ||
            ::read(_result[0], &failed, sizeof(failed)) != sizeof(failed)) {
            return -1;
        }
        return failed;
    }

private:
    [[noreturn]] void StartAll(int count) {
        char address[256] = "";
        if (::read(_address[0], address, sizeof(address) - 1) <= 0) {
            ::_exit(1);
        }
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address, 1);
        int failed = 0;
        for (int i = 0; i < count; ++i) {
            const pid_t child = ::fork();
            if (child == 0) {
                EndInOneWay(i);
            }
            int status = 0;
            ::waitpid(child, &status, 0);
            if (status != 0) {
                std::fprintf(stderr, "  way %d: status %#x\n", i % 4, static_cast<unsigned int>(status));
                ++failed;
            }
        }
        const bool isTold = ::write(_result[1], &failed, sizeof(failed)) > 0;
        ::_exit(isTold ? 0 : 1);
    }

    int _address[2] = {-1, -1};
    int _result[2] = {-1, -1};
    pid_t _pid = -1;
};

}  // namespace

ROW(ProcessEnd,
    "A process ends with exit code 0 while buses, a web server, a timer, a pool and a datagram server are "
    "alive: if they are leaked or owned by a static object, if a task ends the process, and after the "
    "shutdown "
    "of logging",
    60) {
    const int count = run.Count(1'000, 60);
    Starter starter(count);
    const int failed = starter.Run(test::PrivateBus::Get().GetAddress());
    run.Expect(failed == 0, "%d of %d processes failed", failed, count);
    run.Figure("%d processes", count);
}

ROW(Loading, "A program loads the library and lets go of it a hundred times and ends with exit code 0", 10) {
    Dl_info library{};
    ::dladdr(reinterpret_cast<void*>(&core::Logger::GetLogger), &library);
    const auto result = osa::Process::Run(ZARIP_LOAD_PROGRAM, {library.dli_fname});
    run.Expect(result.status == 0, "status %d, signal %d: %s", result.status, result.signal,
               result.error.c_str());
    run.Figure("100 times");
}

}  // namespace zarip::reliability
