// SPDX-License-Identifier: MIT

// Several threads on one connection; benchmarks/bus_bench.py runs it.
//
//   call THREADS CALLS       calls a second of "zarip-bench-peer-zarip serve"
//   beside-hung CALLS        p99 of a call in microseconds: alone, and while another thread waits for a
//                            service that does not answer
//   send THREADS BYTES MS    signals that were sent, refused and lost, and the slowest send in milliseconds

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <zarip/interfaces/ISecurityProvider.h>
#include <zarip/msgbus/IMessageHandler.h>
#include <zarip/msgbus/MsgBus.h>
#include <zarip/msgbus/MsgBusRemoteMethod.h>
#include <zarip/msgbus/MsgBusSignal.h>

namespace {

using Clock = std::chrono::steady_clock;
using zarip::interfaces::ISecurityProvider;
using zarip::msgbus::MsgBus;
using zarip::msgbus::MsgBusMsg;

constexpr const char* kName = "com.brelk.bench";
constexpr const char* kPath = "/com/brelk/bench";
constexpr const char* kHung = "com.brelk.bench.hung";

double MicrosecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

template <class Body>
void InThreads(int count, Body body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([body, i] { body(i); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

int Call(int threads, int calls) {
    MsgBus bus;
    bus.StartServer();
    const std::unique_ptr<ISecurityProvider> provider(ISecurityProvider::CreateClient(&bus));
    const std::string text(64, 'x');
    const auto start = Clock::now();
    InThreads(threads, [&](int) {
        for (int i = 0; i < calls / threads; ++i) {
            provider->GetCredentials(text);
        }
    });
    std::printf("%.0f\n", calls / MicrosecondsSince(start) * 1e6);
    return 0;
}

double NinetyNinthPercentile(const ISecurityProvider& provider, int calls) {
    const std::string text(64, 'x');
    std::vector<double> samples;
    for (int i = 0; i < calls; ++i) {
        const auto start = Clock::now();
        provider.GetCredentials(text);
        samples.push_back(MicrosecondsSince(start));
    }
    const auto place = samples.begin() + calls * 99 / 100;
    std::nth_element(samples.begin(), place, samples.end());
    return *place;
}

int BesideHung(int calls) {
    MsgBus hung;
    hung.RegisterDestinationName(kHung);
    MsgBus bus;
    bus.StartServer();
    const std::unique_ptr<ISecurityProvider> provider(ISecurityProvider::CreateClient(&bus));
    NinetyNinthPercentile(*provider, calls / 10);
    const double alone = NinetyNinthPercentile(*provider, calls);
    std::atomic<bool> waits{false};
    std::thread waiting([&] {
        const zarip::msgbus::MsgBusObjectSelector object(kHung, kPath, kHung);
        MsgBusMsg* reply = nullptr;
        waits = true;
        try {
            bus.SendMsgWaitForReply(zarip::msgbus::MsgBusRemoteMethod(object, "Hang"), reply, 5000);
        } catch (const std::exception&) {
        }
    });
    while (!waits) {
        std::this_thread::yield();
    }
    const double beside = NinetyNinthPercentile(*provider, calls);
    std::printf("%.1f %.1f\n", alone, beside);
    std::fflush(stdout);
    waiting.join();
    return 0;
}

class Counting final : public zarip::msgbus::IMessageHandler {
public:
    void HandleMessage(const MsgBusMsg& /*message*/, zarip::msgbus::IMsgBus& /*bus*/) override { ++count; }
    Kind GetKind() const override { return kSignals; }
    std::atomic<long> count{0};
};

int Send(int threads, int bytes, int milliseconds) {
    MsgBus receiver;
    Counting counting;
    receiver.RegisterMessageHandler("Burst", kName, &counting);
    receiver.StartServer();
    MsgBus bus;
    std::atomic<long> sent{0};
    std::atomic<long> refused{0};
    std::vector<double> slowest(static_cast<std::size_t>(threads));
    const auto end = Clock::now() + std::chrono::milliseconds(milliseconds);
    InThreads(threads, [&](int thread) {
        const std::string text(static_cast<std::size_t>(bytes), 'x');
        while (Clock::now() < end) {
            zarip::msgbus::MsgBusSignal signal(kPath, kName, "Burst");
            signal << text;
            const auto start = Clock::now();
            try {
                bus.SendMsg(signal);
                ++sent;
            } catch (const std::exception&) {
                ++refused;
            }
            double& longest = slowest[static_cast<std::size_t>(thread)];
            longest = std::max(longest, MicrosecondsSince(start) / 1000);
        }
    });
    const auto patience = Clock::now() + std::chrono::seconds(60);
    while (counting.count != sent && Clock::now() < patience) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::printf("%ld %ld %ld %.1f\n", sent.load(), refused.load(), sent - counting.count,
                *std::max_element(slowest.begin(), slowest.end()));
    receiver.StopServer();
    receiver.UnregisterMessageHandler(&counting);
    return 0;
}

int Run(int argc, char** argv) {
    const std::string role = argc > 1 ? argv[1] : "";
    const auto number = [argv](int i) { return std::atoi(argv[i]); };
    if (role == "call" && argc == 4) {
        return Call(number(2), number(3));
    }
    if (role == "beside-hung" && argc == 3) {
        return BesideHung(number(2));
    }
    if (role == "send" && argc == 5) {
        return Send(number(2), number(3), number(4));
    }
    std::fprintf(stderr, "usage: %s call THREADS CALLS | beside-hung CALLS | send THREADS BYTES MS\n",
                 argv[0]);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
}
