// SPDX-License-Identifier: MIT

#pragma once

#include <functional>
#include <vector>

#include "FailingMemory.h"
#include "Parts.h"
#include "support/TempDir.h"
#include "zarip/core/ThreadPool.h"
#include "zarip/osa/UdpServer.h"

/// Small pieces of work of the library that can fail if memory or descriptors run out.
namespace zarip::reliability {

/// Returns whether the result is right, or throws if it reports the failure.
struct Work {
    const char* name;
    FailingMemory::Threads threads;  ///< the threads that do the work
    std::function<bool()> run;
    bool mayLeaveBlocks =
        false;  ///< a handler that is removed without memory keeps some until the connection ends
    bool mayBeLost = false;  ///< a signal, a datagram or a task may be lost without a report
};

enum class Result { kRight, kReported, kWrong };
Result Try(const Work& work);

/// Makes the works that need no service. @param folder  must outlive them.
std::vector<Work> LocalWorks(const test::TempDir& folder);

/// Services and clients that live as long as the object, and the work that uses them.
class Services {
public:
    Services();
    std::vector<Work> GetWorks();

private:
    test::PrivateBus& _bus = test::PrivateBus::Get();
    const EchoService _echo;
    const Subscriber _subscriber;
    msgbus::MsgBus _client;
    WebServer _web;
    core::ThreadPool _pool;
    DatagramCounter _counter;
    osa::UdpServer _datagrams{"127.0.0.1", 0, 2048, 0};
    const osa::UdpSocket _sender{"127.0.0.1", 0, 0};
};

}  // namespace zarip::reliability
