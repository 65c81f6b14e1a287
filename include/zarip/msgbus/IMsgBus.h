#pragma once

#include <string>

#include <zarip/osa/Export.h>

namespace zarip::msgbus {

class IMessageHandler;
class MsgBusMsg;

/// A connection to the bus. *Thread-safe*. Failures throw `osa::Exception`.
///
/// A waiting call holds the connection until it ends: other waiting calls of the process wait for their turn,
/// and no handler runs meanwhile. One-way messages (`SendMsg`, `SendReply`) never wait for it: they are
/// queued, in order for each thread, and leave when the call ends. So a process that serves and calls uses
/// one connection for each, and two services that call each other must not do so on the connections they
/// serve on.
///
/// Register handlers first and call `StartServer` last: calls that arrive before their handler is registered
/// get the bus's unknown-method error.
///
/// A lost bus never ends the process: one error line is logged, waiting calls and later sends throw,
/// `IsRunning` turns false. A new connection needs a new object.
///
/// The bus itself has limits: for each connection 512 match rules, one of which goes to each registered
/// handler.
class ZARIP_EXPORT IMsgBus {
public:
    virtual ~IMsgBus() = default;

    /// Sends a signal, or a method call to which no reply is wanted. Throws "dbus_connection_send failed"
    /// when the bus is lost, when more than 64 MiB wait to be sent, for a message above 32 MiB and for one
    /// without path or member.
    virtual void SendMsg(const MsgBusMsg& message) = 0;

    /// Sends a method call and waits for its reply, on any thread, a handler's included.
    /// @param reply  set to the reply, *caller owns*; untouched when this throws.
    /// @param timeoutMs  milliseconds; negative means the bus library's default of 25 seconds.
    /// Throws "DBUS call <interface>::<member> failed: <reason>", "failed to get reply",
    /// "dbus_connection_send failed".
    virtual void SendMsgWaitForReply(const MsgBusMsg& message, MsgBusMsg*& reply, int timeoutMs) = 0;

    /// Sends what `MakeReplyMsg` or `MakeErrorMsg` made. On a lost bus it does nothing, and where memory is
    /// short or more than 64 MiB wait to be sent it logs an error; throws "dbus_connection_send failed" for a
    /// message above 32 MiB.
    virtual void SendReply(const MsgBusMsg& message) = 0;

    /// Starts the listen thread, on which handlers run; does nothing when it runs already. What arrived
    /// earlier is dispatched now: at most 1,000 messages of 32 MiB together are kept until then, beyond
    /// which the oldest signals are dropped.
    virtual void StartServer() = 0;

    /// @param stackSize  of the listen thread in bytes, @param priority  its priority, both as in
    /// `osa::Thread`.
    virtual void StartServer(unsigned int stackSize, signed char priority) = 0;

    /// Stops the listen thread and waits for its end, but for a handler that stops its own connection.
    virtual void StopServer() = 0;

    /// @param wait  false only asks the listen thread to stop.
    virtual void StopServer(bool wait) = 0;

    /// Becomes the primary owner of a well-known name. Throws "error requesting name or not primary owner"
    /// and "dbus_bus_request_name failed for <name><reason>".
    virtual void RegisterDestinationName(const std::string& name) = 0;

    /// Gives the name up; a failure is logged.
    virtual void UnregisterDestinationName(const std::string& name) = 0;

    /// Whether the listen thread runs.
    virtual bool IsRunning() const = 0;

    /// Enters a handler (*not owned*, must stay until it was unregistered) for an interface and member and
    /// asks the bus for its messages; a refusal by the bus is logged. Where several are registered for one
    /// interface and member, every one gets a signal and the first gets a method call.
    virtual void RegisterMessageHandler(const std::string& member, const std::string& interface,
                                        IMessageHandler* handler) = 0;

    /// Removes a handler wherever it is registered. Once this has returned it does not run and will not,
    /// unless the caller is the handler itself. Never throws.
    virtual void UnregisterMessageHandler(IMessageHandler* handler) = 0;
};

}  // namespace zarip::msgbus
