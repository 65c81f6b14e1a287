// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Export.h>

namespace zarip::msgbus {

class IMessageHandler;
class MsgBusMsg;

/// A connection to the bus. *Thread-safe*. Failures throw `osa::Exception`.
///
/// All messages pass through one queue in order. A waiting call holds no lock while it waits: handlers run,
/// and other threads send, call and receive their replies. One connection therefore serves a whole process. A
/// handler that makes a waiting call blocks the other handlers until it returns. Two services that call each
/// other from their handlers therefore run into their time-outs; use a separate connection for one of the two
/// directions.
///
/// If the bus is slower than the program and more than 1 MiB waits to be sent, a sender waits for at most 100
/// ms. Messages are refused only if 64 MiB or 100,000 messages wait and the bus has accepted nothing for 100
/// ms. The 64 MiB are counted in memory, where each message takes about 640 bytes more than its arguments.
/// Sending succeeds again as soon as the bus reads.
///
/// Register handlers first and call `StartServer` last: calls that arrive before their handler is registered
/// get the error "UnknownMethod".
///
/// The loss of the bus never ends the process. One error is logged, waiting calls and later sends throw, and
/// `IsRunning` becomes false. A lost connection is not restored; make a new object.
///
/// The bus itself has limits for each connection. It allows 512 match rules, of which each registered handler
/// uses one. It drops replies to a connection that has more than 127 MiB to read.
class ZARIP_EXPORT IMsgBus {
public:
    virtual ~IMsgBus() = default;

    /// Sends a signal, or a method call without waiting for a reply. Throws "dbus_connection_send failed" if
    /// the bus is lost, or if the queue is full and the bus accepts nothing. Also throws it for messages for
    /// which the bus would close the connection: messages above 32 MiB, without path or member, or with
    /// libdbus's local path or interface, and replies that were received.
    virtual void SendMsg(const MsgBusMsg& message) = 0;

    /// Sends a method call and waits for its reply. This may be called on any thread, also by a handler. A
    /// call that times out before it is sent is withdrawn. Throws "DBUS call <interface>::<member> failed:
    /// <reason>", "failed to get reply" and "dbus_connection_send failed".
    /// @param reply  is set to the reply, which the *caller owns*; unchanged if this throws.
    /// @param timeoutMs  in milliseconds; a negative value means libdbus's default of 25 seconds.
    virtual void SendMsgWaitForReply(const MsgBusMsg& message, MsgBusMsg*& reply, int timeoutMs) = 0;

    /// Sends a reply that `MakeReplyMsg` or `MakeErrorMsg` has made. Does nothing if the bus is lost, and
    /// logs an error if the queue is full and the bus accepts nothing. Throws "dbus_connection_send
    /// failed" for a message that is not a reply, that was sent or received before, or that is larger than 32
    /// MiB.
    virtual void SendReply(const MsgBusMsg& message) = 0;

    /// Starts the listen thread, on which handlers run. Does nothing if it is running or the bus is lost;
    /// after `StopServer` it may be started again. Messages that arrived earlier are dispatched now; at most
    /// 1,000 of them, with 32 MiB together, are kept until then. Beyond these limits, and beyond 32 MiB while
    /// handlers are busy, the oldest signals are dropped, which is logged once, and calls get the error
    /// "org.freedesktop.DBus.Error.LimitsExceeded".
    virtual void StartServer() = 0;

    /// Starts the listen thread with a stack size in bytes and a priority, both as in `osa::Thread`.
    virtual void StartServer(unsigned int stackSize, signed char priority) = 0;

    /// Stops the listen thread and waits until it has ended, which takes as long as a running handler. Does
    /// not wait if a handler of this connection calls it. Does nothing if the thread is not running.
    virtual void StopServer() = 0;

    /// @param wait  if false, the listen thread is only requested to stop.
    virtual void StopServer(bool wait) = 0;

    /// Acquires a well-known name as its primary owner and waits for the bus for at most 5 seconds. Throws
    /// "error requesting name or not primary owner" and "dbus_bus_request_name failed for <name><reason>".
    virtual void RegisterDestinationName(const std::string& name) = 0;

    /// Releases the name; a failure is logged. Waits for the bus for at most 0.25 seconds. Does not wait if
    /// the bus has failed to answer an earlier request for a name or rule and has sent nothing since.
    virtual void UnregisterDestinationName(const std::string& name) = 0;

    /// Returns whether the listen thread is running.
    virtual bool IsRunning() const = 0;

    /// Registers a handler for an interface and member and asks the bus for the matching messages, with the
    /// time limit of `RegisterDestinationName`. If the bus refuses, that is logged. If several handlers are
    /// registered for one interface and member, each of them gets a signal, and the first gets a method call.
    /// A call without an interface reaches the handler of its member if there is exactly one.
    /// @param handler  *not owned*, must exist until it is unregistered.
    virtual void RegisterMessageHandler(const std::string& member, const std::string& interface,
                                        IMessageHandler* handler) = 0;

    /// Removes a handler from all interfaces and members for which it is registered. Waits until the handler
    /// does not run, and for the bus as `UnregisterDestinationName` does. The handler is not called after
    /// this has returned. A handler that unregisters itself does not wait and may then delete itself. Never
    /// throws.
    virtual void UnregisterMessageHandler(IMessageHandler* handler) = 0;
};

}  // namespace zarip::msgbus
