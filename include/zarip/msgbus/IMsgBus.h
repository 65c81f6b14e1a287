// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Export.h>

namespace zarip::msgbus {

class IMessageHandler;
class MsgBusMsg;

/// A connection to the bus. *Thread-safe*. Failures throw `osa::Exception`.
///
/// Every message enters one queue and leaves it in order. A waiting call holds nothing while it waits:
/// handlers run, and other threads send, call and get their replies. So one connection serves a whole
/// process. Only a handler that makes a waiting call keeps the other handlers from running until it returns.
/// Two services that call each other from their handlers therefore wait for their time-outs; use a connection
/// of its own for one of the two directions.
///
/// A bus that is slower than the program: once more than 1 MiB waits to be sent, a sender waits for at most
/// 100 ms. Messages are refused only when 64 MiB wait (counted in memory, about 640 bytes more than the
/// arguments for each message) and the bus has taken nothing for 100 ms. The flow recovers as soon as the bus
/// reads again.
///
/// Register handlers first and call `StartServer` last: calls that arrive before their handler is registered
/// get the bus's unknown-method error.
///
/// A lost bus never ends the process: one error line is logged, waiting calls and later sends throw,
/// `IsRunning` turns false. A new connection needs a new object.
///
/// The bus itself has limits: for each connection 512 match rules, one for each registered handler; and it
/// drops replies to a connection for which more than 127 MiB wait.
class ZARIP_EXPORT IMsgBus {
public:
    virtual ~IMsgBus() = default;

    /// Sends a signal, or a method call to which no reply is wanted. Throws "dbus_connection_send failed"
    /// when the bus is lost, when 64 MiB wait to be sent and the bus takes nothing, and for a message over
    /// which the bus would close the connection: above 32 MiB, without path or member, with libdbus's local
    /// path or interface, or a reply that was received.
    virtual void SendMsg(const MsgBusMsg& message) = 0;

    /// Sends a method call and waits for its reply, on any thread, a handler's included. A call that times
    /// out before it was sent is not sent any more.
    /// @param reply  set to the reply, *caller owns*; untouched when this throws.
    /// @param timeoutMs  milliseconds; negative means the bus library's default of 25 seconds.
    /// Throws "DBUS call <interface>::<member> failed: <reason>", "failed to get reply",
    /// "dbus_connection_send failed".
    virtual void SendMsgWaitForReply(const MsgBusMsg& message, MsgBusMsg*& reply, int timeoutMs) = 0;

    /// Sends what `MakeReplyMsg` or `MakeErrorMsg` made. On a lost bus it does nothing; if 64 MiB wait to be
    /// sent and the bus takes nothing it logs an error. Throws "dbus_connection_send failed" for a message
    /// that is not a reply, that was sent or received before, or above 32 MiB.
    virtual void SendReply(const MsgBusMsg& message) = 0;

    /// Starts the listen thread, on which handlers run; does nothing when it runs already or the bus is lost.
    /// What arrived earlier is dispatched now: at most 1,000 messages of 32 MiB together are kept until then.
    /// Beyond that, and beyond 32 MiB while handlers are busy, the oldest signals are dropped, with one line
    /// in the log, and calls get the error "org.freedesktop.DBus.Error.LimitsExceeded".
    virtual void StartServer() = 0;

    /// @param stackSize  of the listen thread in bytes, @param priority  its priority, both as in
    /// `osa::Thread`.
    virtual void StartServer(unsigned int stackSize, signed char priority) = 0;

    /// Stops the listen thread and waits until it has ended, that is, for a handler that runs and for nothing
    /// else. A handler that stops its own connection does not wait.
    virtual void StopServer() = 0;

    /// @param wait  false only asks the listen thread to stop.
    virtual void StopServer(bool wait) = 0;

    /// Becomes the primary owner of a well-known name; waits for the bus for at most 5 seconds. Throws "error
    /// requesting name or not primary owner" and "dbus_bus_request_name failed for <name><reason>".
    virtual void RegisterDestinationName(const std::string& name) = 0;

    /// Gives the name up; a failure is logged. Waits for the bus for at most 0.25 seconds, and not at all if
    /// the bus has not answered a name or rule before and has been silent since.
    virtual void UnregisterDestinationName(const std::string& name) = 0;

    /// Whether the listen thread runs.
    virtual bool IsRunning() const = 0;

    /// Enters a handler (*not owned*, must stay until it was unregistered) for an interface and member and
    /// asks the bus for its messages, with the limit of `RegisterDestinationName`; a refusal by the bus is
    /// logged. If several are registered for one interface and member, every one gets a signal and the first
    /// gets a method call. A call that names no interface reaches the one handler that its member has.
    virtual void RegisterMessageHandler(const std::string& member, const std::string& interface,
                                        IMessageHandler* handler) = 0;

    /// Removes a handler wherever it is registered. Once this has returned it does not run and will not,
    /// unless the caller is the handler itself, which may then delete itself. Waits for a running call of
    /// this handler and for no other, and for the bus like `UnregisterDestinationName`. Never throws.
    virtual void UnregisterMessageHandler(IMessageHandler* handler) = 0;
};

}  // namespace zarip::msgbus
