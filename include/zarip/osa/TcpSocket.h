// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>

#include <zarip/osa/Export.h>
#include <zarip/osa/Timeout.h>

namespace zarip::osa {

class TcpServer;

/// A stream socket that listens, was accepted, or connects as a client. It covers IPv4, IPv6 and unix-domain
/// sockets. An address that is not a numeric IP address names a unix-domain socket under "/tmp/sockets/"; the
/// DNS is not asked.
///
/// *One thread at a time*, except for `CancelRecv`, which any thread may call. Time-outs are in whole
/// seconds, and `kWaitForEver` waits without limit. Failures throw `SocketException`; for a failed system
/// call the message is "<call> failed: errno(<number>): <description>" and the code `SocketGeneralError`. No
/// operation raises SIGPIPE. Descriptors of any number work, and programs that the process starts do not
/// inherit them.
class ZARIP_EXPORT TcpSocket {
public:
    /// A socket bound to an address, which `TcpServer` makes listen. Port 0 takes a free one, see
    /// `GetLocalPort`.
    ///
    /// "::" falls back to "0.0.0.0" on a system without IPv6, and a link-local address without a scope gets
    /// "%eth0". For a unix-domain name the constructor makes its folders and replaces a file of that name.
    /// The umask of the process decides which users may connect. Throws "Unable to bind socket to ..."
    /// (`SocketConfigError`), "Address Too Long" and "Address Contains Invalid Character"
    /// (`SocketAddressError`), "Invalid Socket".
    TcpSocket(const char* address, unsigned short port);

    /// An unconnected client of an address family; throws "Invalid family passed to constructor", "Invalid
    /// Socket".
    explicit TcpSocket(unsigned short family);

    /// An unconnected client; `Connect` takes the family of the address.
    TcpSocket();

    /// Wraps a connected descriptor; *takes ownership*, also when it throws: "Invalid socket passed to
    /// constructor", "getpeername failed".
    /// @param pseudoPort  identifies the connection in the server's packet capture.
    /// @param server  may be null; it may end before the socket.
    TcpSocket(unsigned int fd, unsigned short pseudoPort, TcpServer* server);

    TcpSocket(const TcpSocket&) = delete;
    TcpSocket& operator=(const TcpSocket&) = delete;
    virtual ~TcpSocket();

    /// Tries each address of the host. Throws "Timeout: Failed to establish connection to <host>:<port>"
    /// (`SocketTimeout`) if the last one does not answer in time or refuses.
    void Connect(const char* host, unsigned short port, unsigned int timeoutSeconds);

    /// Sends once and returns how many bytes were sent, which may be fewer than `length`. Waits while the
    /// peer takes nothing. Throws "Socket Not Connected" (`SocketAddressError`), and "Timeout" when the time
    /// limit has passed.
    unsigned int Send(const void* data, unsigned int length);

    /// Sends everything.
    void SendAll(const void* data, unsigned int length);

    /// Waits for the first byte, then receives at most `length` bytes that have arrived. 0 if the peer has
    /// closed. Throws "Timeout" (`SocketTimeout`), "Socket was closed" after `CancelRecv`.
    unsigned int Recv(void* buffer, unsigned int length, unsigned int timeoutSeconds);

    /// As `Recv`, but the bytes can be received again. Waits for at most 2 seconds.
    unsigned int Peek(void* buffer, unsigned int length);

    /// Ends a `Recv` that waits on another thread and every later one.
    void CancelRecv();

    /// Limits the waiting time of all operations from now on together; after that they throw "Timeout". So a
    /// peer that sends or takes a byte now and then does not hold a thread for ever. `kWaitForEver` lifts the
    /// limit.
    void SetTimeLimit(unsigned int milliseconds);

    /// Ends sending. The peer reads the end of the stream after everything that was sent.
    void ShutdownSend();

    /// Closes so that the peer gets everything that was sent. For at most a second, within the time limit, it
    /// drops what the peer still sends, up to 64 KiB. Closing with unread bytes would reset the connection,
    /// and the peer would lose the end of the answer.
    void Finish();

    /// Closes. A later connection of this socket has neither the bytes that were read ahead nor the packet
    /// capture. May be called twice.
    void Close();

    unsigned short GetFamily() const;
    unsigned short GetLocalPort() const;

    /// The address that was passed to the constructor, changed by the rules above.
    std::string GetLocalAddress() const;

    /// Throw "getpeername failed", "inet_ntop failed", "unknown socket family".
    unsigned short GetRemotePort() const;
    std::string GetRemoteAddress() const;

    /// The descriptor, or -1 if the socket is closed.
    int getHandle() const;

    /// Sets the kernel's send and receive buffers in bytes, also those of a connection that `Connect` makes
    /// later. Failures are ignored.
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
