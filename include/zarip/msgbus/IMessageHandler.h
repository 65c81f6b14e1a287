// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>

namespace zarip::msgbus {

class IMsgBus;
class MsgBusMsg;

/// Receives the messages of one interface and member.
class ZARIP_EXPORT IMessageHandler {
public:
    enum Kind { kMethodCalls = 1, kSignals = 2, kBoth = 3 };

    virtual ~IMessageHandler() = default;

    /// *Called on MsgBusListenThread* with the connection's `_busMutex` held, one message at a time. It may
    /// send, reply, make waiting calls on `bus`, unregister handlers, this one included, and delete this
    /// handler after that. What it throws is logged, and is the error reply of a call that expects one.
    /// @param message  *not owned*, valid during the call.
    virtual void HandleMessage(const MsgBusMsg& message, IMsgBus& bus) = 0;

    /// What it is registered for. A signal never reaches a handler of method calls, whoever sent it.
    virtual Kind GetKind() const { return kBoth; }
};

}  // namespace zarip::msgbus
