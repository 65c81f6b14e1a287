// SPDX-License-Identifier: MIT

#include "osa/SocketAddress.h"

#include <netdb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include "osa/UniqueFd.h"
#include "zarip/osa/SocketException.h"

namespace zarip::osa {

namespace {

constexpr const char* kSocketFolder = "/tmp/sockets/";
constexpr const char* kScope = "%eth0";
constexpr const char* kProbePort = "49152";
constexpr std::size_t kMaxUnixName = 107;

bool BeginsWith(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}

}  // namespace

std::string AddScope(const std::string& address) {
    const bool lacksScope = BeginsWith(address, "fe80") && address.find('%') == std::string::npos;
    return lacksScope ? address + kScope : address;
}

std::vector<SocketAddress> ResolveNumeric(const std::string& address, unsigned short port, int family,
                                          bool passive) {
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | (passive ? AI_PASSIVE : 0);
    addrinfo* found = nullptr;
    std::vector<SocketAddress> addresses;
    const int result = ::getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (result == EAI_MEMORY || (result == EAI_SYSTEM && errno == ENOMEM)) {
        throw std::bad_alloc();  // an address that is not numeric would be taken for the name of a socket
    }
    if (result != 0) {
        return addresses;
    }
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owned(found, &::freeaddrinfo);
    for (const addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) {
        SocketAddress socket;
        std::memcpy(&socket.storage, entry->ai_addr, entry->ai_addrlen);
        socket.length = entry->ai_addrlen;
        addresses.push_back(socket);
    }
    return addresses;
}

std::string NormaliseUnixName(const std::string& name) {
    std::string path = name;
    if (!path.empty() && !BeginsWith(path, kSocketFolder)) {
        path.insert(0, kSocketFolder);
    }
    if (path.size() > kMaxUnixName) {
        throw SocketException("Address Too Long", SocketException::SocketAddressError);
    }
    for (const char character : path) {
        if (character < 32 || character > 126) {
            throw SocketException("Address Contains Invalid Character", SocketException::SocketAddressError);
        }
    }
    return path;
}

SocketAddress UnixAddress(const std::string& path) {
    SocketAddress address;
    address.unixDomain.sun_family = AF_UNIX;
    std::memcpy(address.unixDomain.sun_path, path.c_str(), path.size() + 1);
    address.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
    return address;
}

void MakeFolders(const std::string& path) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        ::mkdir(path.substr(0, slash).c_str(), 0777);
    }
}

bool HasIpv6() {
    addrinfo hints{};
    hints.ai_family = AF_INET6;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (::getaddrinfo(nullptr, kProbePort, &hints, &found) != 0) {
        return false;
    }
    ::freeaddrinfo(found);
    // Resolving succeeds without IPv6 too; opening and binding does not.
    const UniqueFd probe(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 any{};
    any.sin6_family = AF_INET6;
    any.sin6_addr = in6addr_any;
    return probe.IsValid() && ::bind(probe.Get(), reinterpret_cast<const sockaddr*>(&any), sizeof(any)) == 0;
}

}  // namespace zarip::osa
