// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <streambuf>

#include <zarip/osa/Export.h>

namespace zarip::osa {

class TcpSocket;

/// A stream buffer on a connected socket. *One thread at a time.*
///
/// Reading throws `SocketException` ("Timeout", ...), which a std::istream turns into badbit. Flushing throws
/// `IOException` with the socket's message. Without a socket both throw `IOException` "Socket has not been
/// created".
class ZARIP_EXPORT TcpSocketStreamBuf : public std::streambuf {
public:
    /// @param socket  *not owned*, must outlive the buffer. The time-out of a read is 5 seconds.
    explicit TcpSocketStreamBuf(TcpSocket* socket);

    /// @param bufferSize  bytes of the receive buffer and of the send buffer.
    TcpSocketStreamBuf(TcpSocket* socket, unsigned int timeoutSeconds, unsigned int bufferSize = 256);
    TcpSocketStreamBuf(const TcpSocketStreamBuf&) = delete;
    TcpSocketStreamBuf& operator=(const TcpSocketStreamBuf&) = delete;

    /// Sends what is left and ignores failures.
    ~TcpSocketStreamBuf() override;

    /// Throws `IOException` "Socket already open" if there is a socket.
    void Open(TcpSocket* socket);

    /// Forgets the socket and what was not sent or read, so that another socket can be opened.
    void Close();

protected:
    int sync() override;
    std::streamsize showmanyc() override;
    std::streamsize xsgetn(char* target, std::streamsize count) override;
    int_type underflow() override;
    int_type uflow() override;
    std::streamsize xsputn(const char* source, std::streamsize count) override;
    int_type overflow(int_type character) override;

private:
    void SendPending(const char* more, unsigned int moreLength);

    TcpSocket* _socket;
    unsigned int _bufferSize;
    std::unique_ptr<char[]> _receiveBuffer;
    std::unique_ptr<char[]> _sendBuffer;
    unsigned int _timeout;
};

}  // namespace zarip::osa
