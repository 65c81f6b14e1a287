// SPDX-License-Identifier: MIT

#include "support/OwnNetwork.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace zarip::test {

namespace {

void SetAddress(sockaddr& out, const char* text) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    ::inet_pton(AF_INET, text, &address.sin_addr);
    std::memcpy(&out, &address, sizeof(address));
}

bool Control(unsigned long request, void* argument) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool isDone = ::ioctl(fd, request, argument) == 0;
    ::close(fd);
    return isDone;
}

}  // namespace

bool EnterOwnNetwork(std::string& refusal) {
    if (::unshare(CLONE_NEWNET) == 0) {
        return true;
    }
    refusal = std::strerror(errno);
    return ::unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0;
}

bool OpenLoopback() {
    ifreq up{};
    std::strcpy(up.ifr_name, "lo");
    up.ifr_flags = IFF_UP | IFF_RUNNING | IFF_LOOPBACK | IFF_MULTICAST;
    rtentry route{};
    char device[] = "lo";
    SetAddress(route.rt_dst, "224.0.0.0");
    SetAddress(route.rt_genmask, "240.0.0.0");
    route.rt_flags = RTF_UP;
    route.rt_dev = device;
    return Control(SIOCSIFFLAGS, &up) && Control(SIOCADDRT, &route);
}

bool AddAddress(const char* address) {
    ifreq request{};
    std::strcpy(request.ifr_name, "lo:1");
    SetAddress(request.ifr_addr, address);
    return Control(SIOCSIFADDR, &request);
}

}  // namespace zarip::test
