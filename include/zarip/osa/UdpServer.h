// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>

#include <zarip/osa/Export.h>
#include <zarip/osa/Runnable.h>

namespace zarip::osa {

class IUdpBufferAccept;

/// Receives datagrams on a thread of its own, "UdpSocketThread", and passes each to an `IUdpBufferAccept`.
///
/// *Thread-safe*, except for `Start`, `Stop` and destruction, which only the owner may call; the callback may
/// call `Stop`, too. States: *stopped* at first and after `Stop`, *started* after `Start`. A server can be
/// started and stopped any number of times. Other sockets may bind the same port, see `UdpSocket`. A derived
/// class calls `Stop` in its own destructor.
///
/// No exception leaves the server's thread, even if memory is short.
class ZARIP_EXPORT UdpServer : public Runnable {
public:
    /// A bit of `options`: if several datagrams wait, only the newest is delivered. If a sender never pauses
    /// and is faster than the server reads, the callback is never called.
    static constexpr unsigned int kNewestOnly = 1;

    /// Makes a stopped server. The socket is opened by `Start`.
    /// @param address, port  as in `UdpSocket`.
    /// @param bufferSize  in bytes; the rest of a longer datagram is lost.
    /// @param options  0 or `kNewestOnly`.
    UdpServer(const std::string& address, unsigned short port, unsigned int bufferSize, unsigned int options);
    UdpServer(const UdpServer&) = delete;
    UdpServer& operator=(const UdpServer&) = delete;

    /// Stops the server.
    ~UdpServer() override;

    /// Runs the receive loop. It is called by the thread that `Start` makes. If a datagram cannot be received
    /// or the callback throws, that is logged and the loop continues. The loop ends if the socket has become
    /// unusable. Throws `Exception` "UdpServer::Run(): Server has not been started".
    void Run() override;

    /// Ends the loop, waits until it has ended and closes the socket. If the callback calls `Stop`, it only
    /// asks the loop to end; the owner then calls `Stop` again, or destroys the server. Throws `Exception`
    /// "UdpServer::Stop server has not been started".
    void Stop() override;

    /// Binds the socket, joins the groups and starts the thread. Datagrams that are sent after this call
    /// arrive. Does nothing if the server was started and not stopped yet. Throws `Exception`
    /// "UdpServer::Start(): pCallback was NULL" and what `UdpSocket` throws.
    /// @param callback  *not owned*, must exist until the server is stopped.
    /// @param stackSize, priority  of the thread, as in `Thread`.
    virtual void Start(IUdpBufferAccept* callback, unsigned int stackSize, signed char priority);
    virtual void Start(IUdpBufferAccept* callback);

    /// Returns whether the server receives datagrams.
    bool IsRunning() const;

    /// Adds a group, which is joined at every start. If the socket is open, the group is joined at once, and
    /// added only if that succeeds. Does nothing for a group that was added before. Throws what
    /// `UdpSocket::AddMembership` throws.
    void AddMembership(const std::string& group);

    /// Removes a group, and leaves it if the socket is open. Throws what `UdpSocket::DropMembership` throws.
    void DropMembership(const std::string& group);

    /// Returns the port of the socket while it is open, otherwise the port that was passed to the
    /// constructor.
    unsigned short GetLocalPort() const;

private:
    friend class MulticastServer;
    class Impl;

    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::osa
