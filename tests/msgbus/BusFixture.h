// SPDX-License-Identifier: MIT

#pragma once

#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "support/LogCapture.h"
#include "support/Messages.h"
#include "support/PrivateBus.h"
#include "support/WaitUntil.h"
#include "zarip/msgbus/MsgBus.h"
#include "zarip/osa/Semaphore.h"

namespace zarip::msgbus {

using std::string;
using test::Answering;
using test::Ask;
using test::ErrorOf;
using test::FunctionHandler;
using test::PrivateBus;
using test::WaitUntil;

constexpr const char* kName = "org.camera.test";
constexpr const char* kPath = "/org/camera/test";
constexpr const char* kInterface = "org.camera.test";
inline const MsgBusObjectSelector kService(kName, kPath, kInterface);

/// The messages that a handler has received, in order.
class Record {
public:
    void Add(const string& text) {
        const std::lock_guard<std::mutex> lock(_mutex);
        _texts.push_back(text);
    }
    std::vector<string> Get() const {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _texts;
    }
    bool Contains(const string& text) const {
        const auto texts = Get();
        return std::find(texts.begin(), texts.end(), text) != texts.end();
    }
    FunctionHandler Handler(IMessageHandler::Kind kind = IMessageHandler::kSignals) {
        return FunctionHandler(
            [this](const MsgBusMsg& message, IMsgBus&) {
                string text;
                message >> text;
                Add(text);
            },
            kind);
    }

private:
    mutable std::mutex _mutex;
    std::vector<string> _texts;
};

inline void Signal(IMsgBus& bus, const char* member, const string& text) {
    MsgBusSignal signal(kPath, kInterface, member);
    signal << text;
    bus.SendMsg(signal);
}

/// A connection that owns the service's name. Handlers are made before it, so that they outlive it, and are
/// registered before it is started.
struct Service {
    Service() { bus.RegisterDestinationName(kName); }
    void Handle(const char* member, IMessageHandler& handler) {
        bus.RegisterMessageHandler(member, kInterface, &handler);
    }
    MsgBus bus;
};

/// A running service that answers "Echo" with its argument.
struct EchoService : Service {
    EchoService() {
        Handle("Echo", echo);
        bus.StartServer();
    }
    ~EchoService() { bus.StopServer(); }
    FunctionHandler echo = Answering([](const string& text) { return text; });
};

/// Makes three calls of a service's "Large" and keeps the replies.
inline std::vector<std::unique_ptr<MsgBusMsg>> AskForLarge(MsgBus& client) {
    std::vector<std::unique_ptr<MsgBusMsg>> replies;
    for (int i = 0; i < 3; ++i) {
        MsgBusRemoteMethod call(kService, "Large");
        call << "";
        MsgBusMsg* reply = nullptr;
        client.SendMsgWaitForReply(call, reply, 60000);
        replies.emplace_back(reply);
    }
    return replies;
}

/// Counts the entries of a folder of /proc, with "." and "..".
inline int CountEntries(const char* folder) {
    int count = 0;
    DIR* const directory = ::opendir(folder);
    while (::readdir(directory) != nullptr) {
        ++count;
    }
    ::closedir(directory);
    return count;
}

class MsgBusTest : public testing::Test {
protected:
    MsgBusTest() { PrivateBus::Get(); }
};

/// Blocks a handler until the test opens the gate.
class Gate {
public:
    /// The handler calls this and is blocked.
    void Pass() {
        _entered.Release();
        _open.Lock();
    }
    void WaitForEntry() { _entered.Lock(); }
    void Open() {
        if (!std::exchange(_isOpen, true)) {
            _open.Release();
        }
    }

    /// Opens the gate at the end of a scope, even if the test fails, because the connection waits for its
    /// handler.
    class Opener {
    public:
        explicit Opener(Gate& gate) : _gate(gate) {}
        Opener(const Opener&) = delete;
        Opener& operator=(const Opener&) = delete;
        ~Opener() { _gate.Open(); }

    private:
        Gate& _gate;
    };

private:
    osa::Semaphore _entered{"entered", 1, 0};
    osa::Semaphore _open{"open", 1, 0};
    bool _isOpen = false;
};

}  // namespace zarip::msgbus
