// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>

#include <zarip/osa/Export.h>
#include <zarip/osa/Timeout.h>

namespace zarip::osa {

class TcpServer;

/// A stream socket: a listening socket, an accepted connection or a client. It supports IPv4, IPv6 and
/// unix-domain sockets. An address that is not a numeric IP address is the name of a unix-domain socket in
/// "/tmp/sockets/"; host names are not looked up in the DNS.
///
/// *One thread at a time*, except for `CancelRecv`, which any thread may call. Time-outs are in whole
/// seconds, and `kWaitForEver` waits without limit. Failures throw `SocketException`; for a failed system
/// call the message is "<call> failed: errno(<number>): <description>" and the code `SocketGeneralError`. No
/// operation raises SIGPIPE. The number of a descriptor is not limited, and programs that the process starts
/// do not inherit descriptors.
class ZARIP_EXPORT TcpSocket {
public:
    /// Makes a socket that is bound to an address, for use by `TcpServer`. Port 0 selects a free port, which
    /// `GetLocalPort` returns.
    ///
    /// "::" falls back to "0.0.0.0" on a system without IPv6, and a link-local address without a scope gets
    /// "%eth0". For a unix-domain name, the constructor creates the folders in its path and replaces a file
    /// of that name. The umask of the process decides which users may connect. Throws "Unable to bind socket
    /// to ..." (`SocketConfigError`), "Address Too Long" and "Address Contains Invalid Character"
    /// (`SocketAddressError`), "Invalid Socket".
    TcpSocket(const char* address, unsigned short port);

    /// Makes an unconnected client of an address family. Throws "Invalid family passed to constructor" and
    /// "Invalid Socket".
    explicit TcpSocket(unsigned short family);

    /// Makes an unconnected client. `Connect` uses the family of the address.
    TcpSocket();

    /// Wraps a connected descriptor. *Takes ownership* of it, even if this throws "Invalid socket passed to
    /// constructor" or "getpeername failed".
    /// @param pseudoPort  identifies the connection in the server's packet capture.
    /// @param server  the server of the connection, or null. It may be destroyed before the socket.
    TcpSocket(unsigned int fd, unsigned short pseudoPort, TcpServer* server);

    TcpSocket(const TcpSocket&) = delete;
    TcpSocket& operator=(const TcpSocket&) = delete;
    virtual ~TcpSocket();

    /// Connects to a host; if it has several addresses, tries each of them. Throws "Timeout: Failed to
    /// establish connection to <host>:<port>" (`SocketTimeout`) if the last address does not answer in time
    /// or refuses the connection.
    void Connect(const char* host, unsigned short port, unsigned int timeoutSeconds);

    /// Sends once and returns how many bytes were sent, which may be fewer than `length`. Waits while the
    /// peer takes nothing. Throws "Socket Not Connected" (`SocketAddressError`), and "Timeout" when the time
    /// limit has passed.
    unsigned int Send(const void* data, unsigned int length);

    /// Sends all bytes. Throws what `Send` throws.
    void SendAll(const void* data, unsigned int length);

    /// Waits for the first byte, then receives the bytes that have arrived, at most `length`. Returns their
    /// number, or 0 if the peer has closed. Throws "Timeout" (`SocketTimeout`), "Socket was closed" after
    /// `CancelRecv`.
    unsigned int Recv(void* buffer, unsigned int length, unsigned int timeoutSeconds);

    /// Does the same as `Recv`, but the bytes can be received again. Waits for at most 2 seconds.
    unsigned int Peek(void* buffer, unsigned int length);

    /// Ends a `Recv` that waits on another thread, and lets every later one fail.
    void CancelRecv();

    /// Limits the time that all operations from now on may wait together. After that time they throw
    /// "Timeout". So a peer that sends or takes a byte now and then does not occupy a thread for ever.
    /// `kWaitForEver` removes the limit.
    void SetTimeLimit(unsigned int milliseconds);

    /// Ends sending. The peer reads the end of the stream after everything that was sent.
    void ShutdownSend();

    /// Closes the connection so that the peer gets everything that was sent. Before it closes, it discards
    /// what the peer still sends, for at most a second within the time limit and up to 64 KiB. Closing with
    /// unread bytes would reset the connection, and the peer would lose the end of the answer.
    void Finish();

    /// Closes the socket. Bytes that were read ahead are discarded, and the packet capture of the connection
    /// ends. May be called twice.
    void Close();

    unsigned short GetFamily() const;
    unsigned short GetLocalPort() const;

    /// Returns the address that was passed to the constructor, changed as the constructor describes.
    std::string GetLocalAddress() const;

    /// These functions throw "getpeername failed", "inet_ntop failed" and "unknown socket family".
    unsigned short GetRemotePort() const;
    std::string GetRemoteAddress() const;

    /// Returns the descriptor, or -1 if the socket is closed.
    int getHandle() const;

    /// Sets the size of the send and receive buffers of the kernel in bytes, also for a connection that
    /// `Connect` makes later. Failures are ignored.
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
