// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <memory>

#include <zarip/osa/Export.h>
#include <zarip/osa/Runnable.h>

namespace zarip::osa {

class ITcpSocketAccept;
class PacketCapture;

/// Accepts connections on a thread of its own, "TcpSocketThread", and passes each to an `ITcpSocketAccept`.
///
/// A unix-domain server understands two control commands at the beginning of a connection. "dump start\n"
/// starts a packet capture of all traffic of the server's connections into "/tmp/<last part of its
/// name>.pcap", and "dump stop\n" ends it. Only root and the server's own user may do that. To find the
/// commands, such a server waits at most 2 seconds for the first bytes of a new connection before it passes
/// the connection on. Other connections are served meanwhile.
///
/// *Thread-safe.* A server is bound, then started once, then stopped once; a stopped server is not started
/// again. The acceptor may stop the server and may delete it. Both only ask the accept loop to end, which it
/// does when the acceptor returns. Failures throw `SocketException`.
class ZARIP_EXPORT TcpServer : public Runnable {
public:
    /// Binds at once, see `TcpSocket`; nothing is accepted before `Start`.
    TcpServer(const char* address, unsigned short port);
    TcpServer(const TcpServer&) = delete;
    TcpServer& operator=(const TcpServer&) = delete;

    /// Stops. Connections that were passed on stay open.
    ~TcpServer() override;

    /// Starts accepting, and returns once the server listens. Does nothing while the server runs, not even
    /// replace the acceptor. Throws "listen failed", and "Server was stopped" after `Stop`.
    /// @param acceptor  *not owned*, must outlive the server.
    /// @param backlog  connections that the kernel keeps for the server.
    /// @param stackSize, priority  of the thread, as in `Thread`.
    void Start(ITcpSocketAccept* acceptor, unsigned short backlog, unsigned int stackSize,
               signed char priority);
    void Start(ITcpSocketAccept* acceptor, unsigned short backlog);

    /// The accept loop; run by the thread that `Start` makes.
    void Run() override;

    /// Ends the accept loop, waits until it has ended, and refuses connections from then on. Does nothing if
    /// the loop does not run. A connection that the acceptor is serving in `AcceptSocket` is cancelled: its
    /// operations throw "Socket was closed". If the acceptor itself calls `Stop`, it only asks the loop to
    /// end.
    void Stop() override;

    /// Whether the bytes that a connection has sent so far are enough to serve it.
    using ReadyTest = bool (*)(const char* bytes, std::size_t length);

    /// Holds each new connection, which costs no thread, until `isReady` returns true, 4,095 bytes have
    /// arrived, or the peer has closed. A connection that takes longer than the limit is passed on with its
    /// time limit reached. The server holds at most 1,000 connections, and no more than half of the
    /// descriptors that the process may open; beyond that it closes the oldest. To be called before `Start`.
    /// @param limitMs  milliseconds; also the time limit of a connection once it is passed on
    ///     (`TcpSocket::SetTimeLimit`).
    void HoldConnections(ReadyTest isReady, unsigned int limitMs);

    /// Sets the buffers of the listening socket, and so of each connection. To be called before `Start`.
    void SetBufferSize(unsigned int bytes) const;

    unsigned short GetLocalPort() const;

    /// Whether an error of `accept` means that it will not work again.
    static bool IsFatalError(int error);

    /// Appends one packet to the capture if it is open and the length is positive.
    void DumpPacket(unsigned short sourcePort, unsigned short destinationPort, const void* data, int length);

private:
    friend class TcpSocket;
    struct Impl;

    std::shared_ptr<PacketCapture> GetCapture() const;

    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::osa
