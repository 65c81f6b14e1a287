// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::osa {

class TcpServer;

/// A stream socket: listening, accepted, or a client that connects out. It covers IPv4, IPv6 and unix-domain
/// sockets; an address that is not a numeric IP address names a unix-domain socket under "/tmp/sockets/".
/// Nothing is looked up in the DNS.
///
/// *One thread at a time*, but for `CancelRecv`, which any thread may call. Time-outs are in whole seconds,
/// 0xFFFFFFFF waits without limit. Failures throw `SocketException`; a failed system call as "<call> failed:
/// errno(<number>): <description>" with `SocketGeneralError`. No operation raises SIGPIPE, descriptors of any
/// number work, and none is inherited by programs that the process starts.
class ZARIP_EXPORT TcpSocket {
public:
    /// A socket bound to an address, which `TcpServer` makes listen. Port 0 takes a free one, see
    /// `GetLocalPort`.
    ///
    /// "::" falls back to "0.0.0.0" where there is no IPv6, and a link-local address without a scope gets
    /// "%eth0". A unix-domain name makes its folders and replaces a file of that name; who may connect is up
    /// to the process's umask. Throws "Unable to bind socket to ..." (`SocketConfigError`), "Address Too
    /// Long" and "Address Contains Invalid Character" (`SocketAddressError`), "Invalid Socket".
    TcpSocket(const char* address, unsigned short port);

    /// An unconnected client of an address family; throws "Invalid family passed to constructor", "Invalid
    /// Socket".
    explicit TcpSocket(unsigned short family);

    /// An unconnected client; `Connect` takes the family of the address.
    TcpSocket();

    /// Wraps a connected descriptor; *takes ownership*, also when it throws: "Invalid socket passed to
    /// constructor", "getpeername failed".
    /// @param pseudoPort  stands for the connection in the server's packet capture.
    /// @param server  may be null; it may end before the socket.
    TcpSocket(unsigned int fd, unsigned short pseudoPort, TcpServer* server);

    TcpSocket(const TcpSocket&) = delete;
    TcpSocket& operator=(const TcpSocket&) = delete;
    virtual ~TcpSocket();

    /// Tries each address that the host stands for. Throws "Timeout: Failed to establish connection to
    /// <host>:<port>" (`SocketTimeout`) when the last does not answer in time or refuses.
    void Connect(const char* host, unsigned short port, unsigned int timeoutSeconds);

    /// Sends once and returns how many bytes went, which may be fewer than asked; waits while the peer takes
    /// none. Throws "Socket Not Connected" (`SocketAddressError`), "Timeout" when the time limit has passed.
    unsigned int Send(const void* data, unsigned int length);

    /// Sends everything.
    void SendAll(const void* data, unsigned int length);

    /// Receives what is there, at the most `length` bytes, waiting for the first; 0 when the peer has closed.
    /// Throws "Timeout" (`SocketTimeout`), "Socket was closed" after `CancelRecv`.
    unsigned int Recv(void* buffer, unsigned int length, unsigned int timeoutSeconds);

    /// As `Recv`, but what it returns stays to be received; waits up to 2 seconds.
    unsigned int Peek(void* buffer, unsigned int length);

    /// Ends a `Recv` that waits on another thread and every later one.
    void CancelRecv();

    /// From now on all operations together wait no longer than this, and then throw "Timeout": a peer that
    /// sends or takes a byte now and then does not hold a thread for ever. 0xFFFFFFFF lifts the limit.
    void SetTimeLimit(unsigned int milliseconds);

    /// Ends sending; the peer reads the end of the stream behind what was sent.
    void ShutdownSend();

    /// Closes so that the peer gets all that was sent: what it still sends meanwhile is dropped, up to 64 KiB
    /// or for a second, within the time limit. Closing with something left to receive would reset the
    /// connection and cost the peer the end of the answer.
    void Finish();

    /// Closes, and forgets what was read ahead and the packet capture: a later connection of this socket has
    /// nothing to do with them. May be called twice.
    void Close();

    unsigned short GetFamily() const;
    unsigned short GetLocalPort() const;

    /// The address that the constructor was given, after the rules above.
    std::string GetLocalAddress() const;

    /// Throw "getpeername failed", "inet_ntop failed", "unknown socket family".
    unsigned short GetRemotePort() const;
    std::string GetRemoteAddress() const;

    /// The descriptor, -1 when there is none.
    int getHandle() const;

    /// Send and receive buffer of the kernel in bytes, also of the connection that `Connect` makes later;
    /// failures are ignored.
    void SetBufferSize(unsigned int bytes) const;

private:
    friend class AcceptedSocket;
    friend class TcpServer;
    friend class TcpSocketStreamBuf;
    struct Impl;

    explicit TcpSocket(std::shared_ptr<Impl> impl);
    void SendTwo(const void* first, unsigned int firstLength, const void* second, unsigned int secondLength);

    std::shared_ptr<Impl> _impl;
};

}  // namespace zarip::osa
