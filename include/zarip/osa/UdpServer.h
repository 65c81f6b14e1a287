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
/// *Thread-safe*, except for `Start`, `Stop` and destruction, which belong to the owner; the callback may
/// call `Stop`, too. A server is stopped or started, and can be started and stopped any number of times. The
/// port is bound so that other sockets may bind it as well, see `UdpSocket`. A derived class calls `Stop` in
/// its own destructor.
///
/// No exception leaves the server's thread, even if memory is short.
class ZARIP_EXPORT UdpServer : public Runnable {
public:
    /// Bit of `options`: if several datagrams wait, only the newest is delivered. A sender that never pauses,
    /// and is faster than the server reads, keeps the callback from being called.
    static constexpr unsigned int kNewestOnly = 1;

    /// Opens nothing before `Start`.
    /// @param address, port  as in `UdpSocket`.
    /// @param bufferSize  bytes; the rest of a longer datagram is lost.
    UdpServer(const std::string& address, unsigned short port, unsigned int bufferSize, unsigned int options);
    UdpServer(const UdpServer&) = delete;
    UdpServer& operator=(const UdpServer&) = delete;

    /// Stops.
    ~UdpServer() override;

    /// The receive loop. Run by the thread that `Start` makes. If a datagram cannot be received or the
    /// callback throws, that is logged and the loop continues. The loop ends if the socket has become
    /// unusable. Throws `Exception` "UdpServer::Run(): Server has not been started".
    void Run() override;

    /// Ends the loop, waits until it has ended and closes the socket. If the callback calls `Stop`, it only
    /// asks the loop to end; the owner then calls `Stop` again, or destroys the server. Throws `Exception`
    /// "UdpServer::Stop server has not been started".
    void Stop() override;

    /// Binds, joins the groups and starts the thread. Datagrams that are sent from then on arrive. Does
    /// nothing if the server was started and not stopped yet. Throws `Exception` "UdpServer::Start():
    /// pCallback was NULL" and what `UdpSocket` throws.
    /// @param callback  *not owned*, must outlive the server's run.
    /// @param stackSize, priority  of the thread, as in `Thread`.
    virtual void Start(IUdpBufferAccept* callback, unsigned int stackSize, signed char priority);
    virtual void Start(IUdpBufferAccept* callback);

    /// Whether the server receives datagrams.
    bool IsRunning() const;

    /// Adds a group, which every start joins. If the socket is open, the group is joined at once, and added
    /// only if that succeeds. Does nothing for a group that was added before. Throws what
    /// `UdpSocket::AddMembership` throws.
    void AddMembership(const std::string& group);

    /// Removes a group, and leaves it if the socket is open. Throws what `UdpSocket::DropMembership` throws.
    void DropMembership(const std::string& group);

    /// The port of the socket while it is open, otherwise the one that was passed to the constructor.
    unsigned short GetLocalPort() const;

private:
    friend class MulticastServer;
    class Impl;

    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::osa
