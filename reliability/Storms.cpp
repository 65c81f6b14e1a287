// SPDX-License-Identifier: MIT

// Many short lives: of connections, servers, proxies and processes.

#include <sys/wait.h>

#include <memory>
#include <thread>
#include <vector>

#include "Harness.h"
#include "Parts.h"
#include "support/TempDir.h"
#include "zarip/core/Delegate.h"
#include "zarip/core/FileAppender.h"
#include "zarip/core/Logger.h"
#include "zarip/core/ThreadPool.h"
#include "zarip/interfaces/ISecurityProvider.h"
#include "zarip/interfaces/InterfaceServer.h"
#include "zarip/osa/ITimerCallback.h"
#include "zarip/osa/MulticastServer.h"
#include "zarip/osa/Process.h"
#include "zarip/osa/TcpServer.h"
#include "zarip/osa/Timer.h"
#include "zarip/osa/UdpServer.h"

namespace zarip::reliability {
namespace {

/// Ends a connection in one of the ways in which peers do.
void Misbehave(int fd, int way) {
    if (way % 2 == 1) {
        SendBytes(fd, "GET /pa");
    }
    if (way % 3 == 0) {
        const linger reset{1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    } else if (way % 3 == 1) {
        ::shutdown(fd, SHUT_WR);
        char byte = 0;
        while (::recv(fd, &byte, 1, 0) > 0) {
        }
    }
    ::close(fd);
}

/// Several threads that do one thing until the end of a scope.
class Busy {
public:
    template <class Action>
    Busy(int threads, Action action) {
        for (int i = 0; i < threads; ++i) {
            _threads.emplace_back([this, action] {
                while (!_isOver) {
                    action();
                }
            });
        }
    }
    Busy(const Busy&) = delete;
    Busy& operator=(const Busy&) = delete;
    ~Busy() {
        _isOver = true;
        for (std::thread& thread : _threads) {
            thread.join();
        }
    }

private:
    std::atomic<bool> _isOver{false};
    std::vector<std::thread> _threads;
};

class NoTimer final : public osa::ITimerCallback {
public:
    void OnTimer(const osa::TimeStruct&, void*) override {}
};

void StartAndStopEach(msgbus::MsgBus& bus) {
    {
        const WebServer web;
        Acceptor acceptor;
        osa::TcpServer tcp("127.0.0.1", 0);
        tcp.Start(&acceptor, 5);
        tcp.Stop();
    }
    DatagramCounter counter;
    osa::UdpServer udp("127.0.0.1", 0, 2048, 0);
    udp.Start(&counter);
    udp.Stop();
    osa::MulticastServer multicast("239.255.255.250", 0, 2048, 0);
    multicast.Start(&counter);
    multicast.Stop();
    bus.StartServer();
    bus.StopServer();
    core::ThreadPool pool;
    pool.GetTaskQueue()->QueueTask(core::MakeDelegate([] {}));
    NoTimer callback;
    osa::Timer timer(&callback);
    timer.Start(osa::TimeStruct(0, 1), nullptr);
}

/// A child uses the library as its busy parent has left it. Returns 0 if everything works.
int UseInChild() {
    ::alarm(20);
    core::Logger::GetLogger("child")->Error("a line of %d", static_cast<int>(::getpid()));
    osa::Mutex mutex("child");
    const osa::MutexAutoLock lock(&mutex);
    return osa::Process::Run("/bin/true", {}).status;
}

}  // namespace

ROW(Resets,
    "After resets, half-closes and silent closes the server answers, and no descriptor or thread is left",
    30) {
    WebServer web;
    Acceptor acceptor;
    osa::TcpServer tcp("127.0.0.1", 0);
    tcp.Start(&acceptor, 100);
    run.Expect(Get(web.server.GetLocalPort()) == 200, "the server answers before");
    const Usage before = Usage::Now();
    const int count = run.Count(10'000, 1'000);
    for (int i = 0; i < count; ++i) {
        Misbehave(ConnectTo(web.server.GetLocalPort()), i);
        Misbehave(ConnectTo(tcp.GetLocalPort()), i);
    }
    run.Expect(Get(web.server.GetLocalPort()) == 200, "the server answers afterwards");
    const int accepted = acceptor.accepted;
    ::close(ConnectTo(tcp.GetLocalPort()));
    run.Expect(test::WaitUntil([&] { return acceptor.accepted > accepted; }),
               "the server accepts afterwards");
    run.ExpectNothingLeft(before);
    run.Figure("%d connections to each of two servers", count);
}

ROW(Starts, "Starting and stopping every kind of server leaves no descriptor, no thread and no memory", 60) {
    test::PrivateBus::Get();
    msgbus::MsgBus bus;
    for (int i = 0; i < 20; ++i) {
        StartAndStopEach(bus);
    }
    const Usage before = Usage::Now();
    const int count = run.Count(10'000, 300);
    for (int i = 0; i < count; ++i) {
        StartAndStopEach(bus);
    }
    run.ExpectNothingLeft(before);
    const long grown = Usage::Now().memory - before.memory;
    run.Expect(grown < 1024, "memory grew by %ld KiB", grown);
    run.Figure("%d of each of seven kinds, memory %+ld KiB", count, grown);
}

ROW(Proxies,
    "Proxies and servers that are made and destroyed under signals leave no descriptor, thread or memory",
    60) {
    test::PrivateBus::Get();
    interfaces::ISecurityProvider implementation;
    msgbus::MsgBus serverBus;
    msgbus::MsgBus clientBus;
    serverBus.StartServer();
    clientBus.StartServer();
    const auto makeAndDelete = [&] {
        std::atomic<int> changed{0};
        const std::unique_ptr<interfaces::InterfaceServer> server(
            interfaces::ISecurityProvider::CreateServer(&serverBus, &implementation));
        const std::unique_ptr<interfaces::ISecurityProvider> proxy(
            interfaces::ISecurityProvider::CreateClient(&clientBus));
        proxy->UsersChanged.AddDelegate(core::MakeDelegate([&](const bool&) { ++changed; }));
        return test::WaitUntil([&] { return changed > 0; });
    };
    const Busy busy(1, [&] {
        implementation.UsersChanged.FireEvent(true);
        ::usleep(100);
    });
    run.Expect(makeAndDelete(), "a signal arrives");
    const int warming = run.Count(500, 50);
    for (int i = 0; i < warming; ++i) {
        makeAndDelete();
    }
    const Usage before = Usage::Now();
    const int count = run.Count(10'000, 300);
    for (int i = 0; i < count; ++i) {
        run.Expect(makeAndDelete(), "signals arrive at proxy %d", i);
    }
    run.ExpectNothingLeft(before);
    const long grown = Usage::Now().memory - before.memory;
    run.Expect(grown < 1024, "memory grew by %ld KiB", grown);
    run.Figure("%d of each, memory %+ld KiB", count, grown);
}

ROW(Forks, "A child that is forked while other threads are busy can log, lock and start a program", 60) {
    const test::TempDir folder;
    core::FileAppender appender(folder.File("log").c_str());
    core::Logger::AddAppender(&appender, false);
    const int count = run.Count(1'000, 50);
    int failed = 0;
    {
        core::Logger* const logger = core::Logger::GetLogger("busy");
        const Busy logging(2, [&] { logger->Error("a line of a busy thread"); });
        const Busy starting(1, [] {
            core::ThreadPool pool;
            core::Logger::GetLogger("another");
        });
        for (int i = 0; i < count; ++i) {
            const pid_t child = ::fork();
            if (child == 0) {
                ::_exit(UseInChild());
            }
            int status = 0;
            ::waitpid(child, &status, 0);
            failed += status == 0 ? 0 : 1;
        }
    }
    core::Logger::RemoveAppender(&appender);
    run.Expect(failed == 0, "%d of %d children failed", failed, count);
    run.Figure("%d children", count);
}

}  // namespace zarip::reliability
