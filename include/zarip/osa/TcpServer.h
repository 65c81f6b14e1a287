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
/// name>.pcap", and "dump stop\n" ends it. Only root and the user of the server may do that. To recognise the
/// commands, such a server waits for at most 2 seconds for the first bytes of a new connection before it
/// passes the connection on. It serves other connections during that time.
///
/// States: *bound* after the constructor, *started* after `Start`, *stopped* for good after `Stop`.
/// *Thread-safe.* The acceptor may stop the server and may delete it. Both only ask the accept loop to end,
/// which it does when the acceptor returns. Failures throw `SocketException`.
class ZARIP_EXPORT TcpServer : public Runnable {
public:
    /// Binds a socket to the address as `TcpSocket` does. The server accepts nothing before `Start`.
    TcpServer(const char* address, unsigned short port);
    TcpServer(const TcpServer&) = delete;
    TcpServer& operator=(const TcpServer&) = delete;

    /// Stops the server as `Stop` does. Connections that were passed on stay open.
    ~TcpServer() override;

    /// Starts accepting, and returns once the server listens. Does nothing if the server runs already; the
    /// acceptor is then not replaced. Throws "listen failed", and "Server was stopped" after `Stop`.
    /// @param acceptor  *not owned*, must outlive the server.
    /// @param backlog  how many connections the kernel queues until the server accepts them.
    /// @param stackSize, priority  of the thread, as in `Thread`.
    void Start(ITcpSocketAccept* acceptor, unsigned short backlog, unsigned int stackSize,
               signed char priority);
    void Start(ITcpSocketAccept* acceptor, unsigned short backlog);

    /// Runs the accept loop. It is called by the thread that `Start` makes.
    void Run() override;

    /// Ends the accept loop, waits until it has ended, and refuses connections from then on. Does nothing if
    /// the loop does not run. A connection that the acceptor is serving in `AcceptSocket` is cancelled: its
    /// operations throw "Socket was closed". If the acceptor itself calls `Stop`, it only asks the loop to
    /// end.
    void Stop() override;

    /// Returns whether the bytes that a connection has sent so far are enough to serve it.
    using ReadyTest = bool (*)(const char* bytes, std::size_t length);

    /// Makes the server hold each new connection, without a thread, until `isReady` returns true, 4,095 bytes
    /// have arrived, or the peer has closed. A connection that takes longer than `limitMs` is passed on with
    /// its time limit reached. The server holds at most 1,000 connections, and no more than half of the
    /// descriptors that the process may open; beyond that it closes the oldest. Call it before `Start`.
    /// @param limitMs  milliseconds; also the time limit of a connection once it is passed on
    ///     (`TcpSocket::SetTimeLimit`).
    void HoldConnections(ReadyTest isReady, unsigned int limitMs);

    /// Sets the size of the buffers of the listening socket, which each connection inherits. Call it before
    /// `Start`.
    void SetBufferSize(unsigned int bytes) const;

    unsigned short GetLocalPort() const;

    /// Returns whether an error number of `accept` means that later calls will fail, too.
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
