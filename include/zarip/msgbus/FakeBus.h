// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>
#include <vector>

#include <zarip/msgbus/IMsgBus.h>
#include <zarip/osa/Export.h>

namespace zarip::msgbus {

class MsgBusMsg;

/// A bus in memory for unit tests: proxies and servers of one test are made on the same `FakeBus` and reach
/// each other without a daemon, a thread or a wait. It behaves as one connection to which all of them belong.
///
/// Handlers run on the thread that sends, one at a time, whether `StartServer` was called or not. A waiting
/// call returns after the handler and after the signals that it has sent were handled; a signal that a
/// handler sends is handled after that handler, as on a real bus. So when a call or a send of the test
/// returns, everything that it has caused has happened, unless a handler runs on another thread meanwhile.
///
/// Errors have the texts of a real bus. A call fails at once instead of after its time-out if the name is not
/// registered, nobody handles the member, the handler throws, or it does not reply. What a handler of a
/// signal or of a one-way member throws is logged. Objects describe themselves when Introspect is called;
/// there is no bus daemon to call.
///
/// *Thread-safe*. A derived class may override the functions of `IMsgBus` to observe or refuse something.
class ZARIP_EXPORT FakeBus : public IMsgBus {
public:
    FakeBus();
    FakeBus(const FakeBus&) = delete;
    FakeBus& operator=(const FakeBus&) = delete;
    ~FakeBus() override;

    void SendMsg(const MsgBusMsg& message) override;
    /// The time-out is not used.
    void SendMsgWaitForReply(const MsgBusMsg& message, MsgBusMsg*& reply, int timeoutMs) override;
    void SendReply(const MsgBusMsg& message) override;
    void StartServer() override;
    void StartServer(unsigned int stackSize, signed char priority) override;
    void StopServer() override;
    void StopServer(bool wait) override;
    void RegisterDestinationName(const std::string& name) override;
    void UnregisterDestinationName(const std::string& name) override;
    /// Whether `StartServer` was called, and `StopServer` not since.
    bool IsRunning() const override;
    void RegisterMessageHandler(const std::string& member, const std::string& interface,
                                IMessageHandler* handler) override;
    void UnregisterMessageHandler(IMessageHandler* handler) override;

    /// The names that are registered, in the order of their registration.
    std::vector<std::string> GetNames() const;

    /// The calls and signals, without the replies, that were sent since the last call of this function, in
    /// their order. The caller may read and send them again.
    std::vector<std::unique_ptr<MsgBusMsg>> TakeSent();

private:
    class FakeBusImpl;
    std::unique_ptr<FakeBusImpl> _impl;
};

}  // namespace zarip::msgbus
