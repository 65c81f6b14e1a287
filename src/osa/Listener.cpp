// SPDX-License-Identifier: MIT

#include "osa/Listener.h"

#include <fcntl.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cerrno>

#include "zarip/core/Logger.h"
#include "zarip/osa/SocketException.h"
#include "zarip/osa/TcpServer.h"

namespace zarip::osa {

namespace {

constexpr int kFirstPort = 1'024;
constexpr int kPorts = 65'536;

/// Temporary shortages, from which a server recovers although `IsFatalError` counts them as fatal.
bool IsShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM || error == EPERM;
}

UniqueFd OpenSpare() {
    return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

}  // namespace

void Listener::Listen(unsigned short backlog, bool keepsSilent) {
    _logger = core::Logger::GetLogger("TcpServer");
    const int fd = _socket.getHandle();
    if (keepsSilent && !IsUnix()) {
        // The time is short, because a silent client takes a place in the backlog meanwhile. On a system
        // without SYN cookies, a handful of them would keep all other clients out. After that time the
        // server's loop holds the connection.
        const int seconds = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_DEFER_ACCEPT, &seconds, sizeof(seconds));
    }
    if (::listen(fd, backlog) != 0) {
        throw SocketException("listen failed", SocketException::SocketGeneralError);
    }
    _spare = OpenSpare();
}

Listener::Result Listener::Accept(Accepted& accepted) {
    accepted.peer.length = sizeof(accepted.peer.storage);
    accepted.fd = UniqueFd(::accept4(_socket.getHandle(), &accepted.peer.any, &accepted.peer.length,
                                     SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (accepted.fd.IsValid()) {
        _nextPort = std::max((_nextPort + 1) % kPorts, kFirstPort);
        accepted.port = static_cast<unsigned short>(_nextPort);
        return Result::kAccepted;
    }
    const int error = errno;
    if (error == EAGAIN) {
        return Result::kNone;
    }
    if (IsShortage(error)) {
        unsigned int suppressed = 0;
        if (_logLimit.Allows(suppressed)) {
            _logger->Error("accept failed with recoverable error %d, retrying accept", error);
            if (suppressed > 0) {
                _logger->Error("accept failed like that %u times more since the last such record",
                               suppressed);
            }
        }
        return Result::kShort;
    }
    if (TcpServer::IsFatalError(error)) {
        _logger->Error("accept failed with fatal error %d, terminating ::Run loop", error);
        return Result::kFatal;
    }
    _logger->Warning("accept failed with recoverable error %d, retrying accept", error);
    return Result::kNone;
}

bool Listener::Refuse() {
    _spare = UniqueFd();
    const bool isRefused = UniqueFd(::accept4(_socket.getHandle(), nullptr, nullptr, SOCK_CLOEXEC)).IsValid();
    _spare = OpenSpare();
    return isRefused;
}

}  // namespace zarip::osa
