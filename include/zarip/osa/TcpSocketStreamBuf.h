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

    /// @param timeoutSeconds  the time-out of a read in seconds.
    /// @param bufferSize  the size in bytes of each of the two buffers, for receiving and for sending.
    TcpSocketStreamBuf(TcpSocket* socket, unsigned int timeoutSeconds, unsigned int bufferSize = 256);
    TcpSocketStreamBuf(const TcpSocketStreamBuf&) = delete;
    TcpSocketStreamBuf& operator=(const TcpSocketStreamBuf&) = delete;

    /// Sends what is buffered and ignores failures.
    ~TcpSocketStreamBuf() override;

    /// Uses this socket from now on, *not owned*. Throws `IOException` "Socket already open" if there is a
    /// socket already.
    void Open(TcpSocket* socket);

    /// Detaches from the socket and discards what was not sent or read, so that another socket can be opened.
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
