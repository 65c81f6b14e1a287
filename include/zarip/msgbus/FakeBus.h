// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>
#include <vector>

#include <zarip/msgbus/IMsgBus.h>
#include <zarip/osa/Export.h>

namespace zarip::msgbus {

class MsgBusMsg;

/// A bus in memory for unit tests. The proxies and servers of a test use the same `FakeBus` and reach each
/// other without a daemon, a thread or a wait. It behaves like one connection that all of them share.
///
/// Handlers run on the sending thread, one at a time, even if `StartServer` was not called. As on a real bus,
/// a signal that a handler sends is handled after that handler. A waiting call returns when its handler and
/// the handlers of those signals have returned. So a call or a send of the test returns only when all its
/// effects have happened, unless another thread runs a handler at that time.
///
/// Errors have the messages of a real bus. A call fails at once, not after its time-out, if the name is not
/// registered, if no handler takes the member, or if the handler throws or does not reply. An exception from
/// a handler of a signal or of a one-way member is logged. Introspect is answered; the bus daemon itself
/// cannot be called.
///
/// *Thread-safe*. A derived class may override the functions of `IMsgBus` to observe or refuse something.
class ZARIP_EXPORT FakeBus : public IMsgBus {
public:
    FakeBus();
    FakeBus(const FakeBus&) = delete;
    FakeBus& operator=(const FakeBus&) = delete;
    ~FakeBus() override;

    void SendMsg(const MsgBusMsg& message) override;
    /// Ignores the time-out.
    void SendMsgWaitForReply(const MsgBusMsg& message, MsgBusMsg*& reply, int timeoutMs) override;
    void SendReply(const MsgBusMsg& message) override;
    void StartServer() override;
    void StartServer(unsigned int stackSize, signed char priority) override;
    void StopServer() override;
    void StopServer(bool wait) override;
    void RegisterDestinationName(const std::string& name) override;
    void UnregisterDestinationName(const std::string& name) override;
    /// Returns whether `StartServer` was called and `StopServer` was not called after it.
    bool IsRunning() const override;
    void RegisterMessageHandler(const std::string& member, const std::string& interface,
                                IMessageHandler* handler) override;
    void UnregisterMessageHandler(IMessageHandler* handler) override;

    /// Returns the registered names in the order of their registration.
    std::vector<std::string> GetNames() const;

    /// Returns the calls and signals, but not the replies, that were sent since the last call of this
    /// function, in the order of sending. The caller can read them and send them again.
    std::vector<std::unique_ptr<MsgBusMsg>> TakeSent();

private:
    class FakeBusImpl;
    std::unique_ptr<FakeBusImpl> _impl;
};

}  // namespace zarip::msgbus
