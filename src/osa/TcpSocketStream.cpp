// SPDX-License-Identifier: MIT

#include "zarip/osa/TcpSocketStream.h"

#include <algorithm>
#include <cstring>

#include "zarip/osa/IOException.h"
#include "zarip/osa/SocketException.h"
#include "zarip/osa/TcpSocket.h"

namespace zarip::osa {

namespace {

constexpr unsigned int kTimeoutSeconds = 5;
constexpr const char* kNoSocket = "Socket has not been created";

}  // namespace

TcpSocketStreamBuf::TcpSocketStreamBuf(TcpSocket* socket) : TcpSocketStreamBuf(socket, kTimeoutSeconds) {}

TcpSocketStreamBuf::TcpSocketStreamBuf(TcpSocket* socket, unsigned int timeoutSeconds,
                                       unsigned int bufferSize)
    : _socket(socket),
      _bufferSize(std::max(bufferSize, 1U)),
      _receiveBuffer(new char[_bufferSize]),
      _sendBuffer(new char[_bufferSize]),
      _timeout(timeoutSeconds) {
    setg(_receiveBuffer.get(), _receiveBuffer.get(), _receiveBuffer.get());
    setp(_sendBuffer.get(), _sendBuffer.get() + _bufferSize);
}

TcpSocketStreamBuf::~TcpSocketStreamBuf() {
    try {
        if (_socket != nullptr) {
            SendPending(nullptr, 0);
        }
    } catch (...) {
        // The connection is lost. A caller that needs to know flushes before.
    }
}

void TcpSocketStreamBuf::Open(TcpSocket* socket) {
    if (_socket != nullptr) {
        throw IOException("Socket already open");
    }
    _socket = socket;
}

void TcpSocketStreamBuf::Close() {
    _socket = nullptr;
    setg(_receiveBuffer.get(), _receiveBuffer.get(), _receiveBuffer.get());
    setp(_sendBuffer.get(), _sendBuffer.get() + _bufferSize);
}

void TcpSocketStreamBuf::SendPending(const char* more, unsigned int moreLength) {
    if (_socket == nullptr) {
        throw IOException(kNoSocket);
    }
    if (pbase() != _sendBuffer.get() || pptr() < pbase() || pptr() > epptr()) {
        throw IOException("Invalid Buffer Pointer");
    }
    const auto pending = static_cast<unsigned int>(pptr() - pbase());
    // The buffer is reset first, so that the destructor does not send again what could not be sent.
    setp(_sendBuffer.get(), _sendBuffer.get() + _bufferSize);
    try {
        _socket->SendTwo(_sendBuffer.get(), pending, more, moreLength);
    } catch (const SocketException& e) {
        throw IOException(e.ToString());
    }
}

int TcpSocketStreamBuf::sync() {
    SendPending(nullptr, 0);
    return 0;
}

std::streamsize TcpSocketStreamBuf::showmanyc() {
    return egptr() - gptr();
}

std::streamsize TcpSocketStreamBuf::xsgetn(char* target, std::streamsize count) {
    std::streamsize got = 0;
    while (got < count) {
        if (gptr() == egptr() && traits_type::eq_int_type(underflow(), traits_type::eof())) {
            break;
        }
        const std::streamsize part = std::min<std::streamsize>(egptr() - gptr(), count - got);
        std::memcpy(target + got, gptr(), static_cast<std::size_t>(part));
        gbump(static_cast<int>(part));
        got += part;
    }
    return got;
}

TcpSocketStreamBuf::int_type TcpSocketStreamBuf::underflow() {
    if (_socket == nullptr) {
        throw IOException(kNoSocket);
    }
    if (gptr() == egptr()) {
        const unsigned int received = _socket->Recv(_receiveBuffer.get(), _bufferSize, _timeout);
        setg(_receiveBuffer.get(), _receiveBuffer.get(), _receiveBuffer.get() + received);
        if (received == 0) {
            return traits_type::eof();
        }
    }
    return traits_type::to_int_type(*gptr());
}

TcpSocketStreamBuf::int_type TcpSocketStreamBuf::uflow() {
    const int_type character = underflow();
    if (!traits_type::eq_int_type(character, traits_type::eof())) {
        gbump(1);
    }
    return character;
}

std::streamsize TcpSocketStreamBuf::xsputn(const char* source, std::streamsize count) {
    if (count <= epptr() - pptr()) {
        std::memcpy(pptr(), source, static_cast<std::size_t>(count));
        pbump(static_cast<int>(count));
        return count;
    }
    // The pending bytes and the new ones are sent together, in parts that the length type of sockets can
    // express.
    constexpr std::streamsize kMaxPart = 1 << 30;
    std::streamsize sent = 0;
    while (sent < count) {
        const std::streamsize part = std::min(count - sent, kMaxPart);
        SendPending(source + sent, static_cast<unsigned int>(part));
        sent += part;
    }
    return count;
}

TcpSocketStreamBuf::int_type TcpSocketStreamBuf::overflow(int_type character) {
    if (pptr() == epptr()) {
        sync();
    }
    if (!traits_type::eq_int_type(character, traits_type::eof())) {
        *pptr() = traits_type::to_char_type(character);
        pbump(1);
    }
    return traits_type::not_eof(character);
}

TcpSocketStream::TcpSocketStream(TcpSocket* socket) : std::iostream(nullptr), _buffer(socket) {
    rdbuf(&_buffer);
}

TcpSocketStream::TcpSocketStream(TcpSocket* socket, unsigned int timeoutSeconds, unsigned int bufferSize)
    : std::iostream(nullptr), _buffer(socket, timeoutSeconds, bufferSize) {
    rdbuf(&_buffer);
}

TcpSocketStream::~TcpSocketStream() = default;

}  // namespace zarip::osa
