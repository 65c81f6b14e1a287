// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>

#include <zarip/osa/Export.h>
#include <zarip/osa/TimeSpan.h>
#include <zarip/osa/UdpServer.h>

namespace zarip::core {
class IVoidDelegate0;
}

namespace zarip::osa {

/// A `UdpServer` that opens its socket on its own thread, "MulticastSocketThread". If that fails, it tries
/// again, because a network interface may appear late. It calls delegates when it begins to receive and when
/// it has given up.
///
/// An exception from the callback also ends an attempt: the socket is closed, and after the last attempt the
/// server receives nothing more. So a callback that parses datagrams from the network must catch everything.
///
/// The server receives datagrams of a group only after `AddMembership`, which is called before `Start`.
/// Binding to a group's address does not join the group.
///
/// Delegates are *called on MulticastSocketThread* with the mutex of their list held. *Thread-safe* with the
/// same exceptions as `UdpServer`.
class ZARIP_EXPORT MulticastServer : public UdpServer {
public:
    /// @param attempts  how often the server tries to open the socket in total; at least once.
    /// @param earlyPause  the pause after each of the first half of the attempts (rounded up).
    /// @param latePause  the pause after each of the others. Both pauses are in whole milliseconds; fractions
    ///     are cut off.
    MulticastServer(const std::string& address, unsigned short port, unsigned int bufferSize,
                    unsigned int options, unsigned int attempts = 10,
                    TimeSpan earlyPause = TimeSpan::FromSeconds(1),
                    TimeSpan latePause = TimeSpan::FromSeconds(10));
    ~MulticastServer() override;

    /// Makes the attempts. It is run by the thread that `Start` makes.
    void Run() override;

    /// Ends the loop, or the pause between two attempts, and waits until the thread has ended. Does nothing
    /// if the server was not started. If the callback or a delegate calls `Stop`, it only asks the thread to
    /// end.
    ///
    /// Deliberate: if there was a thread, the function logs "Thread should have been stoped by now!" as an
    /// error, even if everything went well. Readers of the log find the stops of a server by this line.
    void Stop() override;

    /// Starts the thread and returns before the socket is open. Does nothing if the server was started and
    /// not stopped yet, even if it has given up. Throws `Exception` "MulticastServer::Start(): pCallback was
    /// NULL".
    /// @param callback  *not owned*, must exist until the server is stopped.
    /// @param stackSize, priority  as in `Thread`; the stack has 32,768 bytes or more.
    void Start(IUdpBufferAccept* callback, unsigned int stackSize, signed char priority) override;
    using UdpServer::Start;

    /// *Takes ownership*. The delegate is called each time before the server begins to receive. An exception
    /// from it ends that attempt.
    void AddOnStartDelegate(core::IVoidDelegate0* delegate);

    /// *Takes ownership*. The delegate is called when the last attempt has failed.
    void AddOnErrorDelegate(core::IVoidDelegate0* delegate);

    /// These functions delete the delegates that are bound to the object. When they return, the delegates no
    /// longer run.
    void RemoveOnStartDelegate(void* object);
    void RemoveOnErrorDelegate(void* object);

    /// These functions call all delegates and then throw the first exception that one of them has thrown.
    void FireOnStartEvents() const;
    void FireOnErrorEvents() const;

private:
    struct Impl;

    /// Makes one attempt. Returns false if it has failed.
    ZARIP_HIDDEN bool RunOnce();

    std::unique_ptr<Impl> _multicast;
};

}  // namespace zarip::osa
