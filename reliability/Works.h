// SPDX-License-Identifier: MIT

#pragma once

#include <functional>
#include <vector>

#include "FailingMemory.h"
#include "Parts.h"
#include "support/TempDir.h"
#include "zarip/core/ThreadPool.h"
#include "zarip/osa/UdpServer.h"

/// What the library does for a program, as small pieces of work that can fail for want of something.
namespace zarip::reliability {

/// True if the result is right, an exception if it reports the failure.
struct Work {
    const char* name;
    FailingMemory::Threads threads;  ///< those that do the work
    std::function<bool()> run;
    bool mayLeaveBlocks = false;  ///< until the connection ends: of a handler that is removed without memory
    bool mayBeLost = false;       ///< what others do for it reports nothing: a signal, a datagram, a task
};

enum class Result { kRight, kReported, kWrong };
Result Try(const Work& work);

/// Those that need no service. @param folder  must outlive them.
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
