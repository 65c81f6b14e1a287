// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <memory>

#include <zarip/osa/Export.h>
#include <zarip/osa/Runnable.h>

namespace zarip::osa {

class ITcpSocketAccept;
class PacketCapture;

/// Accepts connections on a thread of its own, "TcpSocketThread", and hands each to an `ITcpSocketAccept`.
///
/// A unix-domain server understands two control connections: one that begins with "dump start\n" starts a
/// packet capture of all traffic of the server's connections into "/tmp/<last part of its name>.pcap", "dump
/// stop\n" ends it. Only root and the server's own user may do that. A new connection of such a server is
/// looked at for at most 2 seconds, until it speaks, before it is handed on; meanwhile others are served.
///
/// *Thread-safe.* Started and stopped once. The acceptor may stop the server, and delete it: both only ask
/// the accept loop to end, which happens when the acceptor returns. Failures throw `SocketException`.
class ZARIP_EXPORT TcpServer : public Runnable {
public:
    /// Binds at once, see `TcpSocket`; nothing is accepted before `Start`.
    TcpServer(const char* address, unsigned short port);
    TcpServer(const TcpServer&) = delete;
    TcpServer& operator=(const TcpServer&) = delete;

    /// Stops; connections that were handed on live on.
    ~TcpServer() override;

    /// Starts accepting, and returns once the server listens. Does nothing while the server runs: the
    /// acceptor stays the first one. Throws "listen failed", and "Server was stopped" after `Stop`.
    /// @param acceptor  *not owned*, must outlive the server.
    /// @param backlog  connections that the kernel keeps for the server.
    /// @param stackSize, priority  of the thread, as in `Thread`.
    void Start(ITcpSocketAccept* acceptor, unsigned short backlog, unsigned int stackSize,
               signed char priority);
    void Start(ITcpSocketAccept* acceptor, unsigned short backlog);

    /// The accept loop; run by the thread that `Start` makes.
    void Run() override;

    /// Ends the accept loop, waits for that, and refuses connections from then on; does nothing when the loop
    /// does not run. A connection that the acceptor is serving in `AcceptSocket` is cancelled: its operations
    /// throw "Socket was closed". Called by the acceptor itself it only asks the loop to end.
    void Stop() override;

    /// Tells whether the first bytes of a connection, all that came so far, are enough to serve it.
    using ReadyTest = bool (*)(const char* bytes, std::size_t length);

    /// Keeps new connections back, where they cost no thread, until `isReady`, 4,095 bytes have come, or the
    /// peer has closed. One that takes longer than the limit is handed on with its time used up. At most
    /// 1,000 are kept, and no more than half the descriptors that the process may open; beyond that the
    /// oldest is closed. Before `Start`.
    /// @param limitMs  milliseconds, also the time limit of a connection once it is handed on
    /// (`TcpSocket::SetTimeLimit`).
    void HoldConnections(ReadyTest isReady, unsigned int limitMs);

    /// Before `Start`: of the listening socket, and so of each connection.
    void SetBufferSize(unsigned int bytes) const;

    unsigned short GetLocalPort() const;

    /// Whether an error of `accept` means that it will not work again.
    static bool IsFatalError(int error);

    /// Appends one packet to the capture when one is open and the length is positive.
    void DumpPacket(unsigned short sourcePort, unsigned short destinationPort, const void* data, int length);

private:
    friend class TcpSocket;
    struct Impl;

    std::shared_ptr<PacketCapture> GetCapture() const;

    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::osa
