// SPDX-License-Identifier: MIT

// Every kind of server is stopped, in the states in which that takes longest.

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

#include "Harness.h"
#include "Parts.h"
#include "zarip/core/Delegate.h"
#include "zarip/core/ThreadPool.h"
#include "zarip/osa/MulticastServer.h"
#include "zarip/osa/TcpServer.h"
#include "zarip/osa/UdpServer.h"

namespace zarip::reliability {
namespace {

/// What clients have done to a server before it is stopped.
struct Clients {
    const char* name;
    int count;
    const char* bytes;
};
constexpr Clients kClients[] = {
    {"idle", 0, ""},
    {"a silent client", 1, ""},
    {"a slow client", 1, "POST /path HTTP/1.1\r\nContent-Length: 1000\r\n\r\nhalf"},
    {"a full backlog", 20, "GET /pa"},
};

class Connections {
public:
    Connections(const Clients& clients, unsigned short port) {
        for (int i = 0; i < clients.count; ++i) {
            _fds.push_back(ConnectTo(port, SOCK_NONBLOCK));
            SendBytes(_fds.back(), clients.bytes);
        }
    }
    Connections(const Connections&) = delete;
    Connections& operator=(const Connections&) = delete;
    ~Connections() {
        for (const int fd : _fds) {
            ::close(fd);
        }
    }

private:
    std::vector<int> _fds;
};

/// Keeps what it gets open until its end.
class Keeper final : public osa::ITcpSocketAccept {
public:
    void AcceptSocket(osa::TcpSocket* socket) override { _sockets.emplace_back(socket); }

private:
    std::vector<std::unique_ptr<osa::TcpSocket>> _sockets;
};

class Measure {
public:
    explicit Measure(Run& run) : _run(run) {}
    void Time(const char* server, const char* state, const std::function<void()>& stop) {
        const auto start = std::chrono::steady_clock::now();
        stop();
        const long long time = MillisecondsSince(start);
        _run.Expect(time <= 300, "%s, %s: stopped after %lld ms", server, state, time);
        _slowest = std::max(_slowest, time);
        ++_count;
    }
    void Report() const { _run.Figure("%d stops, the slowest %lld ms", _count, _slowest); }

private:
    Run& _run;
    long long _slowest = 0;
    int _count = 0;
};

void StopStreamServers(Measure& measure) {
    for (const Clients& clients : kClients) {
        WebServer web;
        const Connections toWeb(clients, web.server.GetLocalPort());
        measure.Time("HttpServer", clients.name, [&] { web.server.StopServerThread(); });

        for (const bool holds : {false, true}) {
            Keeper keeper;
            osa::TcpServer server("127.0.0.1", 0);
            if (holds) {
                server.HoldConnections([](const char*, std::size_t) { return false; }, 60'000);
            }
            server.Start(&keeper, 1);
            const Connections toServer(clients, server.GetLocalPort());
            measure.Time("TcpServer", clients.name, [&] { server.Stop(); });
        }
    }
}

void StopDatagramServers(Measure& measure) {
    DatagramCounter counter;
    osa::UdpServer udp("127.0.0.1", 0, 2048, 0);
    udp.Start(&counter);
    const osa::UdpSocket sender("127.0.0.1", 0, 0);
    for (int i = 0; i < 1000; ++i) {
        sender.SendTo(reinterpret_cast<const unsigned char*>("x"), 1, "127.0.0.1", udp.GetLocalPort());
    }
    measure.Time("UdpServer", "a full backlog", [&] { udp.Stop(); });
    udp.Start(&counter);
    measure.Time("UdpServer", "idle", [&] { udp.Stop(); });
    osa::MulticastServer multicast("239.255.255.250", 0, 2048, 0);
    multicast.Start(&counter);
    measure.Time("MulticastServer", "idle", [&] { multicast.Stop(); });
    osa::MulticastServer pausing("203.0.113.1", 9, 2048, 0);  // an address that this machine does not have
    pausing.Start(&counter);
    measure.Time("MulticastServer", "between attempts", [&] { pausing.Stop(); });
}

void StopBusAndPool(Measure& measure) {
    test::PrivateBus::Get();
    EchoService service;
    measure.Time("MsgBus", "idle", [&] { service.bus.StopServer(); });
    service.bus.StartServer();
    msgbus::MsgBus sender;
    for (int i = 0; i < 2000; ++i) {
        SendSignal(sender);
    }
    measure.Time("MsgBus", "signals arrive", [&] { service.bus.StopServer(); });
    service.bus.StartServer();
    test::PrivateBus::Get().Freeze();
    measure.Time("MsgBus", "the bus does not read", [&] { service.bus.StopServer(); });
    test::PrivateBus::Get().Thaw();
    auto pool = std::make_unique<core::ThreadPool>();
    pool->GetTaskQueue()->QueueTask(osa::TimeSpan::FromHours(1), core::MakeDelegate([] {}));
    measure.Time("ThreadPool", "a task waits", [&] { pool.reset(); });
}

}  // namespace

ROW(Stop,
    "Every kind of server, idle, with a silent and a slow client and with a full backlog, stops within 300 "
    "ms",
    30) {
    Measure measure(run);
    for (int round = run.Count(50, 3); round > 0; --round) {
        StopStreamServers(measure);
        StopDatagramServers(measure);
        StopBusAndPool(measure);
    }
    measure.Report();
}

}  // namespace zarip::reliability
