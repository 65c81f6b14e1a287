// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>

#include <zarip/osa/Export.h>
#include <zarip/osa/Runnable.h>

namespace zarip::osa {

class IUdpBufferAccept;

/// Receives datagrams on a thread of its own, "UdpSocketThread", and hands each to an `IUdpBufferAccept`.
///
/// *Thread-safe*, except `Start`, `Stop` and destruction, which belong to the owner; the callback may call
/// `Stop`, too. A stopped server can be started again. The port is bound so that others may bind it as well,
/// see `UdpSocket`. A class derived from this one stops it in its own destructor.
///
/// No exception leaves the server's thread, also when memory is short.
class ZARIP_EXPORT UdpServer : public Runnable {
public:
    /// Bit of `options`: of the datagrams that wait only the newest is delivered. A sender that never pauses,
    /// and is faster than they are read, so keeps the callback from being called.
    static constexpr unsigned int kNewestOnly = 1;

    /// Opens nothing before `Start`.
    /// @param address, port  as in `UdpSocket`.
    /// @param bufferSize  bytes; a longer datagram is cut.
    UdpServer(const std::string& address, unsigned short port, unsigned int bufferSize, unsigned int options);
    UdpServer(const UdpServer&) = delete;
    UdpServer& operator=(const UdpServer&) = delete;

    /// Stops.
    ~UdpServer() override;

    /// The receive loop; run by the thread that `Start` makes. A datagram that cannot be received, and what
    /// the callback throws, is logged and the loop continues. It ends when the socket has become unusable.
    /// Throws `Exception` "UdpServer::Run(): Server has not been started".
    void Run() override;

    /// Ends the loop, waits for that and closes the socket. Called by the callback it only asks the loop to
    /// end; the owner then calls it again, or destroys the server. Throws `Exception` "UdpServer::Stop server
    /// has not been started".
    void Stop() override;

    /// Binds, joins the groups and starts the thread: what is sent from here on arrives. Does nothing when
    /// the server was started and not stopped yet. Throws `Exception` "UdpServer::Start(): pCallback was
    /// NULL" and what `UdpSocket` throws.
    /// @param callback  *not owned*, must outlive the server's run.
    /// @param stackSize, priority  of the thread, as in `Thread`.
    virtual void Start(IUdpBufferAccept* callback, unsigned int stackSize, signed char priority);
    virtual void Start(IUdpBufferAccept* callback);

    /// Whether datagrams are being received.
    bool IsRunning() const;

    /// Enters a group, which every start joins; when the socket is open it is joined at once, and entered
    /// only if that succeeds. A group that is here already is left alone. Throws what
    /// `UdpSocket::AddMembership` throws.
    void AddMembership(const std::string& group);

    /// Removes a group, and leaves it when the socket is open; throws what `UdpSocket::DropMembership`
    /// throws.
    void DropMembership(const std::string& group);

    /// The port of the socket while it is open, otherwise the one that the constructor was given.
    unsigned short GetLocalPort() const;

private:
    friend class MulticastServer;
    class Impl;

    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::osa
