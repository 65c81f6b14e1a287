// SPDX-License-Identifier: MIT

#include "zarip/osa/TcpSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "osa/Errors.h"
#include "osa/SocketAddress.h"
#include "osa/TcpSocketImpl.h"
#include "zarip/osa/TcpServer.h"

namespace zarip::osa {

namespace {

constexpr unsigned int kPeekTimeoutSeconds = 2;
constexpr int kRetryConnectMs = 10;
constexpr MonotonicMs kFinishMs = 1'000;
constexpr std::size_t kFinishBytes = 65'536;

[[noreturn]] void Throw(const std::string& text,
                        SocketException::SocketError code = SocketException::SocketGeneralError) {
    throw SocketException(text, code);
}

void SetBlocking(int fd, bool blocking) {
    int nonBlocking = blocking ? 0 : 1;
    if (::ioctl(fd, FIONBIO, &nonBlocking) != 0) {
        Throw("ioctl Error");
    }
}

UniqueFd OpenSocket(int family) {
    return UniqueFd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

void ApplyBufferSize(int fd, unsigned int bytes) {
    const auto size = static_cast<int>(bytes);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
}

SocketAddress PeerOf(int fd) {
    SocketAddress peer;
    peer.length = sizeof(peer.storage);
    if (::getpeername(fd, &peer.any, &peer.length) != 0) {
        Throw("getpeername failed");
    }
    return peer;
}

unsigned short PortOf(const SocketAddress& address) {
    switch (address.any.sa_family) {
        case AF_INET:
            return ntohs(address.ipv4.sin_port);
        case AF_INET6:
            return ntohs(address.ipv6.sin6_port);
        default:
            Throw("unknown socket family");
    }
}

unsigned short BoundPort(int fd) {
    SocketAddress address;
    address.length = sizeof(address.storage);
    return ::getsockname(fd, &address.any, &address.length) == 0 ? PortOf(address)
                                                                 : static_cast<unsigned short>(0);
}

/// The end of a wait of whole seconds, but not later than the socket's limit.
MonotonicMs EndOfWait(unsigned int timeoutSeconds, MonotonicMs limit) {
    return timeoutSeconds == kWaitForEver
               ? limit
               : std::min(limit, NowMs() + static_cast<MonotonicMs>(timeoutSeconds) * 1000);
}

/// Why the last address that was tried has failed.
struct ConnectFailure {
    const char* call = nullptr;  // null: no answer in time, or a refusal
    int error = 0;
};

/// Connects one address, or sets the failure.
bool ConnectTo(int fd, const SocketAddress& address, MonotonicMs until, ConnectFailure& failure) {
    failure = {};
    int result = ::connect(fd, &address.any, address.length);
    while (result != 0 && errno == EAGAIN && address.any.sa_family == AF_UNIX && NowMs() < until) {
        // The server's backlog is full, and for a unix-domain socket the system does not report when there is
        // room again.
        ::poll(nullptr, 0, kRetryConnectMs);
        result = ::connect(fd, &address.any, address.length);
    }
    if (result == 0) {
        return true;
    }
    if (errno == EAGAIN) {
        return false;
    }
    if (errno != EINPROGRESS && errno != EINTR) {
        failure = {"connect failed", errno};
        return false;
    }
    if (WaitFor(fd, POLLOUT, nullptr, until) != WaitResult::kReady) {
        return false;
    }
    int error = 0;
    socklen_t length = sizeof(error);
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
        failure = {"getsockopt failed", errno};
        return false;
    }
    return error == 0;
}

}  // namespace

TcpSocket::TcpSocket(const char* address, unsigned short port) : _impl(std::make_shared<Impl>()) {
    std::string text = address != nullptr ? address : "";
    if (text == "::" && !HasIpv6()) {
        text = "0.0.0.0";
    }
    text = AddScope(text);
    SocketAddress local;
    const auto resolved = ResolveNumeric(text, port, AF_UNSPEC, true);
    if (!resolved.empty()) {
        local = resolved.front();
    } else {
        text = NormaliseUnixName(text);
        MakeFolders(text);
        ::unlink(text.c_str());
        local = UnixAddress(text);
    }
    _impl->address = text;
    _impl->family = local.any.sa_family;
    _impl->fd = OpenSocket(local.any.sa_family);
    const int fd = _impl->fd.Get();
    if (fd < 0) {
        Throw("Invalid Socket");
    }
    const int on = 1;
    if (::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0) {
        Throw("Unable to Set SO_REUSEADDR");
    }
    if (::bind(fd, &local.any, local.length) != 0) {
        const int error = errno;
        Throw("Unable to bind socket to " + text + " -- " + DescribeError(error) + " (" +
                  std::to_string(error) + ")",
              SocketException::SocketConfigError);
    }
    SetBlocking(fd, false);
    _impl->port = port != 0 || _impl->family == AF_UNIX ? port : BoundPort(fd);
}

TcpSocket::TcpSocket(unsigned short family) : _impl(std::make_shared<Impl>()) {
    if (family != AF_INET && family != AF_INET6 && family != AF_UNIX) {
        Throw("Invalid family passed to constructor");
    }
    _impl->family = family;
    _impl->fd = OpenSocket(family);
    if (!_impl->fd.IsValid()) {
        Throw("Invalid Socket");
    }
    SetBlocking(_impl->fd.Get(), false);
}

TcpSocket::TcpSocket() : TcpSocket(static_cast<unsigned short>(AF_INET)) {}

TcpSocket::TcpSocket(unsigned int fd, unsigned short pseudoPort, TcpServer* server)
    : _impl(std::make_shared<Impl>()) {
    _impl->fd = UniqueFd(static_cast<int>(fd));
    if (!_impl->fd.IsValid() || ::fcntl(_impl->fd.Get(), F_GETFD) < 0) {
        Throw("Invalid socket passed to constructor");
    }
    _impl->family = PeerOf(_impl->fd.Get()).any.sa_family;
    SetBlocking(_impl->fd.Get(), false);
    _impl->connected = true;
    _impl->port = pseudoPort;
    if (server != nullptr) {
        _impl->capture = server->GetCapture();
    }
}

TcpSocket::TcpSocket(std::shared_ptr<Impl> impl) : _impl(std::move(impl)) {}

std::unique_ptr<TcpSocket> AcceptedSocket::Make(Origin origin) {
    const auto impl = std::make_shared<TcpSocket::Impl>();
    impl->fd = std::move(origin.fd);
    impl->connected = true;
    impl->family = origin.family;
    impl->port = origin.port;
    impl->readAhead = std::move(origin.readAhead);
    impl->isReadAheadCaptured = true;
    impl->capture = std::move(origin.capture);
    return std::unique_ptr<TcpSocket>(new TcpSocket(impl));
}

TcpSocket::~TcpSocket() {
    Close();
}

void TcpSocket::Close() {
    _impl->connected = false;
    _impl->fd = UniqueFd();
    _impl->readAhead.clear();
    _impl->readAheadUsed = 0;
    _impl->capture.reset();
}

void TcpSocket::Finish() {
    const MonotonicMs until = std::min(NowMs() + kFinishMs, _impl->limit);
    char dropped[4096];
    std::size_t total = 0;
    while (total < kFinishBytes) {
        const ssize_t received = ::recv(_impl->fd.Get(), dropped, sizeof(dropped), MSG_DONTWAIT);
        if (received > 0) {
            if (total == 0) {
                ShutdownSend();
            }
            total += static_cast<std::size_t>(received);
        } else if (received == 0 || errno != EAGAIN || total == 0 ||
                   WaitFor(_impl->fd.Get(), POLLIN, &_impl->cancel, until, _impl->GetServerStop()) !=
                       WaitResult::kReady) {
            break;
        }
    }
    Close();
}

void TcpSocket::Connect(const char* host, unsigned short port, unsigned int timeoutSeconds) {
    const std::string name = host != nullptr ? host : "";
    auto addresses = ResolveNumeric(AddScope(name), port, AF_UNSPEC, false);
    if (addresses.empty()) {
        addresses.push_back(UnixAddress(NormaliseUnixName(name)));
    }
    // A socket that is not connected yet may have options that the caller has set.
    UniqueFd unused = _impl->connected || !_impl->address.empty() ? UniqueFd() : std::move(_impl->fd);
    Close();
    ConnectFailure failure{"Invalid Socket", 0};
    for (const auto& address : addresses) {
        const bool isFitting = unused.IsValid() && address.any.sa_family == _impl->family;
        UniqueFd fd = isFitting ? std::exchange(unused, UniqueFd()) : OpenSocket(address.any.sa_family);
        if (!fd.IsValid()) {
            continue;
        }
        SetBlocking(fd.Get(), false);
        if (!isFitting && _impl->bufferSize != 0) {
            ApplyBufferSize(fd.Get(), _impl->bufferSize);
        }
        if (ConnectTo(fd.Get(), address, EndOfWait(timeoutSeconds, _impl->limit), failure)) {
            _impl->fd = std::move(fd);
            _impl->family = address.any.sa_family;
            _impl->connected = true;
            return;
        }
    }
    if (failure.call == nullptr) {
        Throw("Timeout: Failed to establish connection to " + name + ":" + std::to_string(port),
              SocketException::SocketTimeout);
    }
    if (failure.error == 0) {
        Throw(failure.call);
    }
    ThrowErrno(failure.call, failure.error);
}

unsigned int TcpSocket::Impl::Send(const iovec* parts, int count) {
    if (!connected) {
        Throw("Socket Not Connected", SocketException::SocketAddressError);
    }
    msghdr message{};
    message.msg_iov = const_cast<iovec*>(parts);
    message.msg_iovlen = static_cast<std::size_t>(count);
    for (;;) {
        if (IsServerStopped()) {
            Throw("Socket was closed");
        }
        const ssize_t sent = ::sendmsg(fd.Get(), &message, MSG_NOSIGNAL);
        if (sent >= 0) {
            auto left = static_cast<std::size_t>(sent);
            for (int i = 0; capture != nullptr && i < count && left > 0; ++i) {
                const std::size_t part = std::min(left, parts[i].iov_len);
                capture->Dump(0, port, parts[i].iov_base, part);
                left -= part;
            }
            return static_cast<unsigned int>(sent);
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            ThrowErrno("send failed");
        }
        if (WaitFor(fd.Get(), POLLOUT, GetServerStop(), limit) == WaitResult::kTimeout) {
            Throw("Timeout", SocketException::SocketTimeout);
        }
    }
}

unsigned int TcpSocket::Send(const void* data, unsigned int length) {
    const iovec part = {const_cast<void*>(data), length};
    return _impl->Send(&part, 1);
}

void TcpSocket::SendAll(const void* data, unsigned int length) {
    SendTwo(data, length, nullptr, 0);
}

void TcpSocket::SendTwo(const void* first, unsigned int firstLength, const void* second,
                        unsigned int secondLength) {
    iovec parts[] = {{const_cast<void*>(first), firstLength}, {const_cast<void*>(second), secondLength}};
    for (int i = 0; i < 2;) {
        if (parts[i].iov_len == 0) {
            ++i;
            continue;
        }
        std::size_t sent = _impl->Send(parts + i, 2 - i);
        for (int part = i; part < 2; ++part) {
            const std::size_t gone = std::min(sent, parts[part].iov_len);
            parts[part].iov_base = static_cast<char*>(parts[part].iov_base) + gone;
            parts[part].iov_len -= gone;
            sent -= gone;
        }
    }
}

unsigned int TcpSocket::Impl::TakeReadAhead(void* buffer, unsigned int length, bool isPeek) {
    const std::size_t count = std::min<std::size_t>(readAhead.size() - readAheadUsed, length);
    std::memcpy(buffer, readAhead.data() + readAheadUsed, count);
    if (!isPeek) {
        readAheadUsed += count;
        if (capture != nullptr && !isReadAheadCaptured) {
            capture->Dump(port, 0, buffer, count);
        }
    }
    return static_cast<unsigned int>(count);
}

unsigned int TcpSocket::Impl::Receive(void* buffer, unsigned int length, unsigned int timeoutSeconds,
                                      int flags) {
    MonotonicMs until = 0;
    for (bool waited = false;; waited = true) {
        if (cancel.IsCancelled() || IsServerStopped()) {
            Throw("Socket was closed");
        }
        if (readAheadUsed < readAhead.size() && length > 0) {
            return TakeReadAhead(buffer, length, (flags & MSG_PEEK) != 0);
        }
        // Most often there are bytes, and receiving them needs no wait and no cancel descriptor.
        const ssize_t received = ::recv(fd.Get(), buffer, length, flags | MSG_NOSIGNAL | MSG_DONTWAIT);
        if (received >= 0) {
            if (capture != nullptr && (flags & MSG_PEEK) == 0) {
                capture->Dump(port, 0, buffer, static_cast<std::size_t>(received));
            }
            return static_cast<unsigned int>(received);
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            ThrowErrno("recv failed");
        }
        if (!waited) {
            until = EndOfWait(timeoutSeconds, limit);
        }
        switch (WaitFor(fd.Get(), POLLIN, &cancel, until, GetServerStop())) {
            case WaitResult::kTimeout:
                Throw("Timeout", SocketException::SocketTimeout);
            case WaitResult::kCancelled:
                Throw("Socket was closed");
            case WaitResult::kReady:
                break;
        }
    }
}

unsigned int TcpSocket::Recv(void* buffer, unsigned int length, unsigned int timeoutSeconds) {
    return _impl->Receive(buffer, length, timeoutSeconds, 0);
}

unsigned int TcpSocket::Peek(void* buffer, unsigned int length) {
    return _impl->Receive(buffer, length, kPeekTimeoutSeconds, MSG_PEEK);
}

void TcpSocket::CancelRecv() {
    // The reader may return at once, and its owner may then delete the socket.
    const std::shared_ptr<Impl> impl = _impl;
    impl->cancel.Cancel();
}

void TcpSocket::SetTimeLimit(unsigned int milliseconds) {
    _impl->limit = milliseconds == kWaitForEver ? kNever : NowMs() + milliseconds;
}

void TcpSocket::ShutdownSend() {
    ::shutdown(_impl->fd.Get(), SHUT_WR);
}

unsigned short TcpSocket::GetFamily() const {
    return _impl->family;
}

unsigned short TcpSocket::GetLocalPort() const {
    return _impl->port;
}

std::string TcpSocket::GetLocalAddress() const {
    return _impl->address;
}

unsigned short TcpSocket::GetRemotePort() const {
    return PortOf(PeerOf(_impl->fd.Get()));
}

std::string TcpSocket::GetRemoteAddress() const {
    const SocketAddress peer = PeerOf(_impl->fd.Get());
    const void* binary = nullptr;
    switch (peer.any.sa_family) {
        case AF_INET:
            binary = &peer.ipv4.sin_addr;
            break;
        case AF_INET6:
            binary = &peer.ipv6.sin6_addr;
            break;
        default:
            Throw("unknown socket family");
    }
    char text[INET6_ADDRSTRLEN];
    if (::inet_ntop(peer.any.sa_family, binary, text, sizeof(text)) == nullptr) {
        Throw("inet_ntop failed");
    }
    return text;
}

int TcpSocket::getHandle() const {
    return _impl->fd.Get();
}

void TcpSocket::SetBufferSize(unsigned int bytes) const {
    _impl->bufferSize = bytes;
    ApplyBufferSize(_impl->fd.Get(), bytes);
}

}  // namespace zarip::osa
