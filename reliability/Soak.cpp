// SPDX-License-Identifier: MIT

// One process that works for long.

#include "Harness.h"
#include "Parts.h"
#include "zarip/core/Delegate.h"
#include "zarip/core/ThreadPool.h"
#include "zarip/osa/UdpServer.h"

namespace zarip::reliability {
namespace {

/// All kinds of work, a part at a time.
class Worker {
public:
    explicit Worker(Run& run) : _run(run) { _datagrams.Start(&_counter); }

    void Work(int calls, int requests) {
        Call(calls);
        for (int i = 0; i < calls; i += kBurst) {
            Burst();
        }
        for (int i = 0; i < requests; ++i) {
            _run.Expect(Get(_web.server.GetLocalPort()) == 200, "a web request is answered");
        }
    }

private:
    static constexpr int kBurst = 100;

    void Call(int count) {
        for (int i = 0; i < count; ++i) {
            _run.Expect(test::Ask(_client, kEcho, "Echo", "a text") == "a text", "a call is answered");
        }
    }

    /// Signals, tasks and datagrams, of which the kernel keeps only so many.
    void Burst() {
        for (int i = 0; i < kBurst; ++i) {
            SendSignal(_client);
            _pool.GetTaskQueue()->QueueTask(core::MakeDelegate([this] { ++_done; }));
            _sender.SendTo(reinterpret_cast<const unsigned char*>("x"), 1, "127.0.0.1",
                           _datagrams.GetLocalPort());
        }
        _expected += kBurst;
        _run.Expect(test::WaitUntil([&] {
                        return _subscriber.received == _expected && _done == _expected &&
                               _counter.received == _expected;
                    }),
                    "of %d there came %d signals, %d tasks, %d datagrams", _expected,
                    _subscriber.received.load(), _done.load(), _counter.received.load());
    }

    Run& _run;
    test::PrivateBus& _bus = test::PrivateBus::Get();
    const EchoService _echo;
    const Subscriber _subscriber;
    msgbus::MsgBus _client;
    WebServer _web;
    std::atomic<int> _done{0};
    core::ThreadPool _pool;
    DatagramCounter _counter;
    osa::UdpServer _datagrams{"127.0.0.1", 0, 2048, 0};
    const osa::UdpSocket _sender{"127.0.0.1", 0, 0};
    int _expected = 0;
};

}  // namespace

ROW(Soak,
    "Calls, signals, tasks, datagrams and web requests in one process: after the first twentieth memory "
    "grows by less than 1 MiB, and there are as many descriptors and threads as then",
    60) {
    constexpr int kParts = 20;
    const int calls = run.Count(1'000'000, 20'000);
    const int requests = run.Count(200'000, 4'000);
    Worker worker(run);
    worker.Work(calls / kParts, requests / kParts);
    const Usage before = Usage::Now();
    for (int part = 1; part < kParts; ++part) {
        worker.Work(calls / kParts, requests / kParts);
    }
    run.ExpectNothingLeft(before);
    const long grown = Usage::Now().memory - before.memory;
    run.Expect(grown < 1024, "memory grew by %ld KiB", grown);
    run.Figure(
        "%d calls, signals, tasks and datagrams each and %d web requests: memory %+ld KiB, descriptors and "
        "threads +0",
        calls, requests, grown);
}

}  // namespace zarip::reliability
