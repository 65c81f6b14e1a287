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

    /// *Called on MsgBusListenThread* with the connection's `_busMutex` held, one message at a time. The
    /// handler may send, reply, and make waiting calls on `bus`. It may unregister handlers, including
    /// itself, and may delete itself after that. An exception is logged and becomes the error reply of a call
    /// that expects a reply.
    /// @param message  *not owned*, valid during the call.
    virtual void HandleMessage(const MsgBusMsg& message, IMsgBus& bus) = 0;

    /// Returns which messages the handler takes. A signal never reaches a handler of method calls.
    virtual Kind GetKind() const { return kBoth; }
};

}  // namespace zarip::msgbus
