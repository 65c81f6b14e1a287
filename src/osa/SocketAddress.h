// SPDX-License-Identifier: MIT

#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <string>
#include <vector>

namespace zarip::osa {

/// An address to bind or connect to.
struct SocketAddress {
    union {
        sockaddr any;
        sockaddr_in ipv4;
        sockaddr_in6 ipv6;
        sockaddr_un unixDomain;
        sockaddr_storage storage;
    };
    socklen_t length;

    SocketAddress() : storage(), length(0) {}
};

/// A link-local address without a scope gets the camera's first interface.
std::string AddScope(const std::string& address);

/// Parses a numeric IP address. No value if the string is not one.
std::vector<SocketAddress> ResolveNumeric(const std::string& address, unsigned short port, int family,
                                          bool passive);

/// Puts a unix-domain name under "/tmp/sockets/". Throws SocketException "Address Too Long", "Address
/// Contains Invalid Character".
std::string NormaliseUnixName(const std::string& name);

SocketAddress UnixAddress(const std::string& path);

/// Makes the folders of a path, as far as that works.
void MakeFolders(const std::string& path);

bool HasIpv6();

}  // namespace zarip::osa
