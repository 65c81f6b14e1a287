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

/// A `UdpServer` that opens its socket on its own thread, "MulticastSocketThread", and tries again when that
/// fails: an interface may appear late. Delegates learn when it receives, and when it has given up.
///
/// Mind that an attempt also ends, and counts, when the callback throws: the socket is closed, and after the
/// last attempt the server receives no more. A callback that parses what strangers send catches everything.
///
/// It receives what is sent to a group only after `AddMembership`, which is called before `Start`; the
/// address it is bound to joins nothing.
///
/// `Stop` cuts both pauses short. Delegates are *called on MulticastSocketThread* with the mutex of their
/// list held. *Thread-safe* as `UdpServer` is.
class ZARIP_EXPORT MulticastServer : public UdpServer {
public:
    /// @param attempts  tries to open the socket, in all; at least one is made.
    /// @param earlyPause  after each of the first half of the attempts (rounded up).
    /// @param latePause  after the others. Both in whole milliseconds, fractions are cut off.
    MulticastServer(const std::string& address, unsigned short port, unsigned int bufferSize,
                    unsigned int options, unsigned int attempts = 10,
                    TimeSpan earlyPause = TimeSpan::FromSeconds(1),
                    TimeSpan latePause = TimeSpan::FromSeconds(10));
    ~MulticastServer() override;

    /// The attempts; run by the thread that `Start` makes.
    void Run() override;

    /// Ends the loop or the pause that it is in, and waits for that. Does nothing when the server was not
    /// started; called by the callback or a delegate it only asks the thread to end.
    ///
    /// Deliberate: logs "Thread should have been stoped by now!" as an error whenever there was a thread,
    /// also when all went well. Those who read the log find the stops of a server by this line.
    void Stop() override;

    /// Starts the thread and returns; nothing is open yet. Does nothing when the server was started and not
    /// stopped yet, even if it has given up. Throws `Exception` "MulticastServer::Start(): pCallback was
    /// NULL".
    /// @param callback  *not owned*, must outlive the server's run.
    /// @param stackSize, priority  as in `Thread`; the stack has 32,768 bytes or more.
    void Start(IUdpBufferAccept* callback, unsigned int stackSize, signed char priority) override;
    using UdpServer::Start;

    /// *Takes ownership*. Called each time before the server begins to receive; one that throws ends that
    /// attempt.
    void AddOnStartDelegate(core::IVoidDelegate0* delegate);

    /// *Takes ownership*. Called when the last attempt has failed.
    void AddOnErrorDelegate(core::IVoidDelegate0* delegate);

    /// Delete the delegates bound to the object; none of them runs any more when this returns.
    void RemoveOnStartDelegate(void* object);
    void RemoveOnErrorDelegate(void* object);

    /// Call the delegates; all are called, then the first exception among theirs is thrown.
    void FireOnStartEvents() const;
    void FireOnErrorEvents() const;

private:
    struct Impl;

    /// One attempt; false if it has failed.
    ZARIP_HIDDEN bool RunOnce();

    std::unique_ptr<Impl> _multicast;
};

}  // namespace zarip::osa
