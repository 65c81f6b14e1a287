// SPDX-License-Identifier: MIT

#include "zarip/osa/UdpSocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "osa/SocketAddress.h"
#include "osa/UniqueFd.h"
#include "osa/Wait.h"
#include "zarip/osa/SocketException.h"

#ifndef IPV6_MULTICAST_ALL
#define IPV6_MULTICAST_ALL 29
#endif

namespace zarip::osa {

namespace {

constexpr std::size_t kControlSize = 512;
constexpr MonotonicMs kPauseMs = 100;

[[noreturn]] void Throw(const std::string& text,
                        SocketException::SocketError code = SocketException::SocketGeneralError) {
    throw SocketException(text, code);
}

bool SetOption(int fd, int level, int option, int value) {
    return ::setsockopt(fd, level, option, &value, sizeof(value)) == 0;
}

void RequireOption(int fd, int level, int option, const char* failure) {
    if (!SetOption(fd, level, option, 1)) {
        Throw(failure, SocketException::SocketConfigError);
    }
}

/// False if the string is not a numeric address.
bool Parse(const char* text, unsigned short port, SocketAddress& out) {
    const auto resolved = ResolveNumeric(text != nullptr ? text : "", port, AF_UNSPEC, false);
    if (resolved.empty()) {
        return false;
    }
    out = resolved.front();
    return true;
}

void ReadLocal(msghdr& message, UdpSocket::Info& info) {
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level == IPPROTO_IP && part->cmsg_type == IP_PKTINFO) {
            in_pktinfo packet{};
            std::memcpy(&packet, CMSG_DATA(part), sizeof(packet));
            ::inet_ntop(AF_INET, &packet.ipi_addr, info.localIpv4, sizeof(info.localIpv4));
        } else if (part->cmsg_level == IPPROTO_IPV6 && part->cmsg_type == IPV6_PKTINFO) {
            in6_pktinfo packet{};
            std::memcpy(&packet, CMSG_DATA(part), sizeof(packet));
            ::inet_ntop(AF_INET6, &packet.ipi6_addr, info.localIpv6, sizeof(info.localIpv6));
        }
    }
}

void ReadRemote(const SocketAddress& from, UdpSocket::Info& info) {
    switch (from.any.sa_family) {
        case AF_INET:
            ::inet_ntop(AF_INET, &from.ipv4.sin_addr, info.remoteIpv4, sizeof(info.remoteIpv4));
            info.remotePort = ntohs(from.ipv4.sin_port);
            return;
        case AF_INET6:
            ::inet_ntop(AF_INET6, &from.ipv6.sin6_addr, info.remoteIpv6, sizeof(info.remoteIpv6));
            info.remotePort = ntohs(from.ipv6.sin6_port);
            return;
        default:
            Throw("unknown family");
    }
}

}  // namespace

struct ZARIP_HIDDEN UdpSocket::Impl {
    UniqueFd ipv4;
    UniqueFd ipv6;
    unsigned short family = AF_UNSPEC;
    std::string address;
    unsigned short port = 0;
    CancelEvent cancel;
    /// Which descriptor is read first: they take turns, so that neither starves the other.
    std::atomic<unsigned int> turn{0};

    const UniqueFd& Of(int family_) const { return family_ == AF_INET6 ? ipv6 : ipv4; }

    void RequireAny() const {
        if (!ipv4.IsValid() && !ipv6.IsValid()) {
            Throw("Invalid Socket");
        }
    }

    bool ReceiveNow(int fd, unsigned char* buffer, unsigned int length, Info& info,
                    unsigned int& received) const;
};

UdpSocket::UdpSocket(const char* address, unsigned short port, signed char reuse)
    : _impl(std::make_unique<Impl>()) {
    _impl->address = address != nullptr ? address : "";
    if (_impl->address == "::" && !HasIpv6()) {
        _impl->address = "0.0.0.0";
    }
    if (_impl->cancel.GetFd() < 0) {
        Throw("Failed to create pipe");
    }
    SocketAddress local;
    if (!Parse(_impl->address.c_str(), port, local)) {
        Throw("Invalid Address", SocketException::SocketConfigError);
    }
    _impl->port = port;
    _impl->family = local.any.sa_family;
    const bool isIpv6 = _impl->family == AF_INET6;
    OpenAndBindSocket(_impl->address.c_str(), reuse != 0 || isIpv6);
    if (isIpv6) {
        OpenAndBindSocket("0.0.0.0", true);
    }
}

UdpSocket::~UdpSocket() = default;

void UdpSocket::OpenAndBindSocket(const char* address, bool reuse) {
    SocketAddress local;
    if (!Parse(address, _impl->port, local)) {
        Throw("Invalid Address", SocketException::SocketConfigError);
    }
    UniqueFd socket(::socket(local.any.sa_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int fd = socket.Get();
    if (fd < 0) {
        Throw("Invalid Socket");
    }
    // The system may give the same free port to two sockets with this option, so it is set after a free port
    // was found.
    const bool isFreePort = _impl->port == 0;
    if (reuse && !isFreePort) {
        RequireOption(fd, SOL_SOCKET, SO_REUSEADDR, "setting SO_REUSEADDR");
    }
    const bool isIpv6 = local.any.sa_family == AF_INET6;
    if (isIpv6) {
        RequireOption(fd, IPPROTO_IPV6, IPV6_V6ONLY, "setting V6ONLY");
        RequireOption(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, "setting IPV6_PKTINFO");
        SetOption(fd, IPPROTO_IPV6, IPV6_MULTICAST_ALL, 0);  // unknown to old kernels
    } else {
        RequireOption(fd, IPPROTO_IP, IP_PKTINFO, "setting IP_PKTINFO");
        SetOption(fd, IPPROTO_IP, IP_MULTICAST_ALL, 0);
    }
    if (::bind(fd, &local.any, local.length) != 0) {
        Throw("Unable to bind socket", SocketException::SocketConfigError);
    }
    if (isFreePort) {
        if (reuse) {
            RequireOption(fd, SOL_SOCKET, SO_REUSEADDR, "setting SO_REUSEADDR");
        }
        local.length = sizeof(local.storage);
        if (::getsockname(fd, &local.any, &local.length) != 0) {
            Throw("Invalid Socket");
        }
        _impl->port = ntohs(isIpv6 ? local.ipv6.sin6_port : local.ipv4.sin_port);
    }
    (isIpv6 ? _impl->ipv6 : _impl->ipv4) = std::move(socket);
}

void UdpSocket::SendTo(const unsigned char* data, unsigned int length, const char* host,
                       unsigned short port) const {
    SocketAddress to;
    if (!Parse(host, port, to)) {
        Throw("Invalid Address");
    }
    const UniqueFd& fd = _impl->Of(to.any.sa_family);
    if (!fd.IsValid()) {
        Throw("Invalid Socket");
    }
    while (::sendto(fd.Get(), data, length, MSG_NOSIGNAL, &to.any, to.length) < 0) {
        if (errno != EINTR) {
            Throw("Socket Error");
        }
    }
}

/// False if there is no datagram. One with a bad checksum makes the descriptor ready and is then dropped by
/// the system.
bool UdpSocket::Impl::ReceiveNow(int fd, unsigned char* buffer, unsigned int length, Info& info,
                                 unsigned int& received) const {
    if (fd < 0) {
        return false;
    }
    SocketAddress from;
    iovec part = {buffer, length};
    alignas(cmsghdr) char control[kControlSize];
    msghdr message{};
    message.msg_name = &from.storage;
    message.msg_namelen = sizeof(from.storage);
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    const ssize_t count = ::recvmsg(fd, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (count < 0) {
        if (errno == EAGAIN || errno == EINTR) {
            return false;
        }
        Throw("Socket Error");
    }
    Info result{};
    result.localPort = port;
    ReadLocal(message, result);
    ReadRemote(from, result);
    info = result;
    received = static_cast<unsigned int>(count);
    return true;
}

unsigned int UdpSocket::RecvFrom(unsigned char* buffer, unsigned int length, Info& info,
                                 unsigned int timeoutSeconds) const {
    _impl->RequireAny();
    int first = _impl->ipv4.Get();
    int second = _impl->ipv6.Get();
    if (first >= 0 && second >= 0 && _impl->turn++ % 2 == 1) {
        std::swap(first, second);
    }
    MonotonicMs until = kNever;
    for (bool waited = false;; waited = true) {
        if (_impl->cancel.IsCancelled()) {
            Throw("Socket was closed");
        }
        unsigned int received = 0;
        if (_impl->ReceiveNow(first, buffer, length, info, received) ||
            _impl->ReceiveNow(second, buffer, length, info, received)) {
            return received;
        }
        if (!waited && timeoutSeconds != kWaitForEver) {
            until = NowMs() + static_cast<MonotonicMs>(timeoutSeconds) * 1000;
        }
        WaitResult result{};
        if (!WaitForEither({first, POLLIN}, {second, POLLIN}, &_impl->cancel, until, result)) {
            Throw("Socket Error");
        }
        if (result == WaitResult::kTimeout) {
            Throw("Timeout", SocketException::SocketTimeout);
        }
    }
}

void UdpSocket::CancelRecv() {
    _impl->cancel.Cancel();
}

void UdpSocket::Close() {
    _impl->ipv4 = UniqueFd();
    _impl->ipv6 = UniqueFd();
}

unsigned short UdpSocket::GetLocalPort() const {
    return _impl->port;
}

/// Receives a datagram that waits already; false if there is no such datagram.
bool UdpSocket::ReceiveWaiting(unsigned char* buffer, unsigned int length, Info& info,
                               unsigned int& received) const {
    return _impl->ReceiveNow(_impl->ipv4.Get(), buffer, length, info, received) ||
           _impl->ReceiveNow(_impl->ipv6.Get(), buffer, length, info, received);
}

/// False if a descriptor is not a socket any more, because other code has closed it by mistake. Otherwise a
/// shortage has made receiving fail, and the pause keeps the caller from retrying at full speed.
bool UdpSocket::PauseAfterFailure() const {
    for (const UniqueFd* fd : {&_impl->ipv4, &_impl->ipv6}) {
        int type = 0;
        socklen_t size = sizeof(type);
        if (fd->IsValid() && ::getsockopt(fd->Get(), SOL_SOCKET, SO_TYPE, &type, &size) != 0) {
            return false;
        }
    }
    Pause(kPauseMs, &_impl->cancel);
    return true;
}

void UdpSocket::AddMembership(const char* group) const {
    AddDropMembership(group, true, nullptr);
}

void UdpSocket::DropMembership(const char* group) const {
    AddDropMembership(group, false, nullptr);
}

void UdpSocket::AddSourceMembership(const char* group, const char* source) const {
    AddDropMembership(group, true, source != nullptr ? source : "");
}

void UdpSocket::DropSourceMembership(const char* group, const char* source) const {
    AddDropMembership(group, false, source != nullptr ? source : "");
}

void UdpSocket::AddDropMembership(const char* group, bool add, const char* source) const {
    const std::string prefix = std::string("UdpSocket::") + (add ? "Add" : "Drop") +
                               (source != nullptr ? "Source" : "") + "Membership(" +
                               (group != nullptr ? group : "") + "): ";
    _impl->RequireAny();
    SocketAddress groupAddress;
    SocketAddress sourceAddress;
    if (!Parse(group, 0, groupAddress)) {
        Throw(prefix + "invalid address");
    }
    int result = 0;
    const bool isIpv6 = groupAddress.any.sa_family == AF_INET6;
    const int fd = _impl->Of(groupAddress.any.sa_family).Get();
    if (isIpv6) {
        if (source != nullptr) {
            Throw(prefix + "IPv6 does not support source-specific multicast");
        }
        if (fd < 0) {
            Throw(prefix + "IPv6 address on IPv4 socket");
        }
        ipv6_mreq request{};
        request.ipv6mr_multiaddr = groupAddress.ipv6.sin6_addr;
        request.ipv6mr_interface = groupAddress.ipv6.sin6_scope_id;
        result = ::setsockopt(fd, IPPROTO_IPV6, add ? IPV6_ADD_MEMBERSHIP : IPV6_DROP_MEMBERSHIP, &request,
                              sizeof(request));
    } else if (source == nullptr) {
        ip_mreq request{};
        request.imr_multiaddr = groupAddress.ipv4.sin_addr;
        result = ::setsockopt(fd, IPPROTO_IP, add ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP, &request,
                              sizeof(request));
    } else {
        if (!Parse(source, 0, sourceAddress) || sourceAddress.any.sa_family != AF_INET) {
            Throw(prefix + "invalid address");
        }
        ip_mreq_source request{};
        request.imr_multiaddr = groupAddress.ipv4.sin_addr;
        request.imr_sourceaddr = sourceAddress.ipv4.sin_addr;
        result = ::setsockopt(fd, IPPROTO_IP, add ? IP_ADD_SOURCE_MEMBERSHIP : IP_DROP_SOURCE_MEMBERSHIP,
                              &request, sizeof(request));
    }
    if (result != 0) {
        const int error = errno;
        Throw(prefix + (isIpv6 ? "IPV6_" : "IP_") + (add ? "ADD" : "DROP") +
              (source != nullptr ? "_SOURCE" : "") +
              "_MEMBERSHIP failed with errno: " + std::to_string(error));
    }
}

}  // namespace zarip::osa
