// SPDX-License-Identifier: MIT

// The bus is killed, or stops reading, while everything is in use.

#include <algorithm>
#include <memory>
#include <thread>
#include <vector>

#include "Harness.h"
#include "Parts.h"

namespace zarip::reliability {
namespace {

using test::PrivateBus;

/// Eight threads that call a service that never answers, and one that sends signals, on one connection.
class Users {
public:
    explicit Users(int timeoutMs) : _timeoutMs(timeoutMs) {
        _hung.RegisterDestinationName("org.camera.hung");
        for (int i = 0; i < 8; ++i) {
            _threads.emplace_back([this] { Call(); });
        }
        _threads.emplace_back([this] { Send(); });
    }
    Users(const Users&) = delete;
    Users& operator=(const Users&) = delete;
    ~Users() { Join(); }

    bool AreWaiting() const { return _waiting == 8 && _sent > 100; }

    /// Waits until every thread has come to its end; how long the slowest call took beyond its time-out.
    long long Join() {
        _isOver = true;
        for (std::thread& thread : _threads) {
            thread.join();
        }
        _threads.clear();
        return _slowest;
    }
    int GetUnanswered() const { return _ended; }

private:
    void Call() {
        const auto start = std::chrono::steady_clock::now();
        ++_waiting;
        try {
            const msgbus::MsgBusObjectSelector hung("org.camera.hung", kPath, kInterface);
            test::Ask(_client, hung, "Hang", "x", _timeoutMs);
        } catch (const std::exception&) {
            ++_ended;
        }
        const long long late = MillisecondsSince(start) - _timeoutMs;
        long long slowest = _slowest;
        while (late > slowest && !_slowest.compare_exchange_weak(slowest, late)) {
        }
    }
    void Send() {
        try {
            for (; !_isOver; ++_sent) {
                SendSignal(_client);
            }
        } catch (const std::exception&) {  // refused: the bus takes nothing
        }
    }

    const int _timeoutMs;
    msgbus::MsgBus _hung;
    msgbus::MsgBus _client;
    std::atomic<int> _waiting{0};
    std::atomic<int> _sent{0};
    std::atomic<int> _ended{0};
    std::atomic<long long> _slowest{-1'000'000};
    std::atomic<bool> _isOver{false};
    std::vector<std::thread> _threads;
};

void ExpectNewConnectionWorks(Run& run) {
    const EchoService service;
    msgbus::MsgBus client;
    run.Expect(test::Ask(client, kEcho, "Echo", "again") == "again", "a new connection works");
}

}  // namespace

ROW(KilledBus,
    "The bus is killed under 8 waiting threads, a sender and an idle server: every call ends with an error, "
    "a new connection works, no descriptor and no thread is left",
    30) {
    PrivateBus::Get();
    ExpectNewConnectionWorks(run);
    const Usage before = Usage::Now();
    const int rounds = run.Count(100, 10);
    long long slowest = 0;
    for (int round = 0; round < rounds; ++round) {
        PrivateBus::Get().Start();
        {
            const Subscriber idle;
            Users users(60'000);
            run.Expect(test::WaitUntil([&] { return users.AreWaiting(); }), "the threads wait");
            const auto killed = std::chrono::steady_clock::now();
            PrivateBus::Get().Kill();
            users.Join();
            slowest = std::max(slowest, MillisecondsSince(killed));
            run.Expect(users.GetUnanswered() == 8, "%d calls ended with an error", users.GetUnanswered());
            run.Expect(test::WaitUntil([&] { return !idle.bus.IsRunning(); }),
                       "the idle server knows of the loss");
        }
        PrivateBus::Get().Start();
        ExpectNewConnectionWorks(run);
        run.ExpectNothingLeft(before);
    }
    run.Expect(slowest < 1000, "%lld ms until all had ended", slowest);
    run.Figure("%d rounds, all had ended after at most %lld ms", rounds, slowest);
}

ROW(StoppedBus,
    "The bus stops reading under 8 waiting threads, a sender and an idle server: every call ends at its "
    "time-out, the objects end, a new connection works once the bus reads again, no descriptor and no thread "
    "is left",
    60) {
    PrivateBus::Get();
    ExpectNewConnectionWorks(run);
    const Usage before = Usage::Now();
    const int rounds = run.Count(100, 6);
    long long slowest = 0;
    long long end = 0;
    for (int round = 0; round < rounds; ++round) {
        {
            auto idle = std::make_unique<Subscriber>();
            auto users = std::make_unique<Users>(500);
            run.Expect(test::WaitUntil([&] { return users->AreWaiting(); }), "the threads wait");
            PrivateBus::Get().Freeze();
            slowest = std::max(slowest, users->Join());
            run.Expect(users->GetUnanswered() == 8, "%d calls ended with an error", users->GetUnanswered());
            const auto start = std::chrono::steady_clock::now();
            users.reset();
            idle.reset();
            end = std::max(end, MillisecondsSince(start));
        }
        PrivateBus::Get().Thaw();
        ExpectNewConnectionWorks(run);
        run.ExpectNothingLeft(before);
    }
    run.Expect(slowest < 300, "a call ended %lld ms after its time-out", slowest);
    run.Expect(end < 3000, "three connections took %lld ms to end", end);
    run.Figure(
        "%d rounds, calls ended at most %lld ms after their time-out, three connections within %lld ms",
        rounds, slowest, end);
}

}  // namespace zarip::reliability
