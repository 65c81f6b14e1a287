// SPDX-License-Identifier: MIT

// The networking service: tells what the machine's network is like and when that changes, and keeps settings.
//
//   networking-service FILE      networking.ini shows what the file holds
//
// Get takes {"settings":["[IPv4/Actual]Address","[NTP]Server"]} and answers with an object of those keys and
// their values; what has no value at present is left out. Set takes such an object, stores all of it or, when
// one is refused, nothing, and answers with what it stored. Values are texts, also numbers and "true".
//
//   to read              [IPv4/Actual]Address, [IPv6/Actual]Addresses (with commas in between),
//                        [NIC/eth0]EUI64, [NIC/eth0]Name, [NIC/eth0]MTU, [System]Hostname
//   to read and change   [IPv4/Static]Enabled, Address, PrefixLength and Gateway; [NTP]Enabled and Server;
//                        [Lighttpd]Port
//
// The interface is eth0 or, where there is none, the first Ethernet interface, whose name [NIC/eth0]Name
// tells. Settings are stored in the file and go no further: the machine stays as it is.

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netpacket/packet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cajun/json/elements.h>
#include <cajun/json/writer.h>

#include <zarip/core/IniFile.h>
#include <zarip/core/JsonUtils.h>
#include <zarip/core/Logger.h>
#include <zarip/core/StringUtil.h>
#include <zarip/interfaces/INetworkingV2Provider.h>
#include <zarip/interfaces/InterfaceServer.h>
#include <zarip/msgbus/MsgBus.h>
#include <zarip/msgbus/StopSignal.h>
#include <zarip/osa/Exception.h>
#include <zarip/osa/NetworkUtils.h>
#include <zarip/osa/Runnable.h>
#include <zarip/osa/Thread.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include "common/Fd.h"
#include "common/LogToStdout.h"

namespace {

using zarip::core::IniFile;
using zarip::core::JsonUtils;
using zarip::core::StringUtil;
using zarip::interfaces::INetworkingV2Provider;
using zarip::osa::Exception;

// The machine -----------------------------------------------------------------------------------------------

struct Network {
    std::string interface;  // all of them are empty when there is none
    std::string eui64;
    std::string ipv4;
    std::set<std::string> ipv6;
    unsigned int mtu = 0;
    std::string hostname;
};

template <class Address>
Address As(const sockaddr* address) {
    Address copy{};
    std::memcpy(&copy, address, sizeof(copy));
    return copy;
}

std::string ToText(const sockaddr* address) {
    char text[INET6_ADDRSTRLEN] = "";
    if (address->sa_family == AF_INET) {
        const auto ipv4 = As<sockaddr_in>(address);
        ::inet_ntop(AF_INET, &ipv4.sin_addr, text, sizeof(text));
    } else {
        const auto ipv6 = As<sockaddr_in6>(address);
        ::inet_ntop(AF_INET6, &ipv6.sin6_addr, text, sizeof(text));
    }
    return text;
}

/// The hardware address with ff:fe in the middle and the bit flipped that says who assigned it.
std::string ToEui64(const unsigned char* mac) {
    char text[24];
    std::snprintf(text, sizeof(text), "%02x:%02x:%02x:ff:fe:%02x:%02x:%02x", mac[0] ^ 2U, mac[1], mac[2],
                  mac[3], mac[4], mac[5]);
    return text;
}

unsigned int ReadMtu(const std::string& interface) {
    const Fd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    std::strncpy(request.ifr_name, interface.c_str(), IFNAMSIZ - 1);
    const bool isThere = ::ioctl(socket.Get(), SIOCGIFMTU, &request) == 0 && request.ifr_mtu > 0;
    return isThere ? static_cast<unsigned int>(request.ifr_mtu) : 0;
}

Network ReadNetwork() {
    ifaddrs* list = nullptr;
    Check(::getifaddrs(&list), "getifaddrs");
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owned(list, &::freeifaddrs);
    Network network;
    int best = -1;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_PACKET) {
            continue;
        }
        const auto link = As<sockaddr_ll>(entry->ifa_addr);
        const bool isEth0 = std::strcmp(entry->ifa_name, "eth0") == 0;
        const int rank = isEth0 ? 2 : (entry->ifa_flags & IFF_UP) != 0 ? 1 : 0;
        if (link.sll_hatype == ARPHRD_ETHER && link.sll_halen == 6 && rank > best) {
            best = rank;
            network.interface = entry->ifa_name;
            network.eui64 = ToEui64(link.sll_addr);
        }
    }
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_name != network.interface) {
            continue;
        }
        if (entry->ifa_addr->sa_family == AF_INET && network.ipv4.empty()) {
            network.ipv4 = ToText(entry->ifa_addr);
        } else if (entry->ifa_addr->sa_family == AF_INET6) {
            network.ipv6.insert(ToText(entry->ifa_addr));
        }
    }
    network.mtu = network.interface.empty() ? 0 : ReadMtu(network.interface);
    char hostname[256] = "";
    ::gethostname(hostname, sizeof(hostname) - 1);
    network.hostname = hostname;
    return network;
}

// The settings ----------------------------------------------------------------------------------------------

constexpr const char* kReadOnly[] = {"[IPv4/Actual]Address", "[IPv6/Actual]Addresses", "[NIC/eth0]EUI64",
                                     "[NIC/eth0]Name",       "[NIC/eth0]MTU",          "[System]Hostname"};

bool IsSwitch(const std::string& text) {
    return text == "true" || text == "false";
}

bool IsIpv4(const std::string& text) {
    return zarip::osa::NetworkUtils::IpAddressFamily(text) == AF_INET;
}

bool IsHost(const std::string& text) {
    return !text.empty() && text.size() <= 253 &&
           text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-:") ==
               std::string::npos;
}

template <int kLeast, int kMost>
bool IsNumber(const std::string& text) {
    int number = 0;
    return text.find_first_not_of("0123456789") == std::string::npos && StringUtil::TryParse(text, number) &&
           number >= kLeast && number <= kMost;
}

/// As it stands in the file: a key of a group.
struct Setting {
    const char* group;
    const char* key;
    bool (*isValid)(const std::string& text);
};

constexpr Setting kSettings[] = {
    {"IPv4/Static", "Enabled", &IsSwitch},
    {"IPv4/Static", "Address", &IsIpv4},
    {"IPv4/Static", "PrefixLength", &IsNumber<0, 32>},
    {"IPv4/Static", "Gateway", &IsIpv4},
    {"NTP", "Enabled", &IsSwitch},
    {"NTP", "Server", &IsHost},
    {"Lighttpd", "Port", &IsNumber<1, 65'535>},
};

const Setting* FindSetting(const std::string& name) {
    const auto found =
        std::find_if(std::begin(kSettings), std::end(kSettings), [&name](const Setting& setting) {
            return name == "[" + std::string(setting.group) + "]" + setting.key;
        });
    return found != std::end(kSettings) ? found : nullptr;
}

bool IsReadOnly(const std::string& name) {
    return std::find(std::begin(kReadOnly), std::end(kReadOnly), name) != std::end(kReadOnly);
}

template <class Element>
std::string ToJson(const Element& element) {
    std::ostringstream text;
    json::Writer::Write(element, text);
    return text.str();
}

// The service -----------------------------------------------------------------------------------------------

class NetworkingService final : public INetworkingV2Provider {
public:
    explicit NetworkingService(const char* path) : _path(path), _ini(path) {}

    std::string Get(const std::string& query) override {
        try {
            const json::Object request = JsonUtils::ParseObject(query);
            const json::Array& names = request["settings"];
            const auto actual = GetActual();
            json::Object answer;
            for (const json::UnknownElement& element : names) {
                const std::string& name = static_cast<const json::String&>(element).Value();
                const Setting* const setting = FindSetting(name);
                std::string value;
                if (setting == nullptr && !IsReadOnly(name)) {
                    throw Exception("there is no setting " + ToJson(json::String(name)));
                }
                if (setting != nullptr ? _ini.TryGetValue(value, setting->group, setting->key)
                                       : IniFile::TryGetValueFromGroup(value, actual, name)) {
                    answer[name] = json::String(value);
                }
            }
            return ToJson(answer);
        } catch (const json::Exception& e) {
            throw Exception(std::string("Get takes {\"settings\":[\"...\"]}: ") + e.what());
        }
    }

    std::string Set(const std::string& settings) override {
        try {
            const json::Object wanted = JsonUtils::ParseObject(settings);
            IniFile changed = _ini;
            for (const json::Object::Member& member : wanted) {
                const std::string& value = static_cast<const json::String&>(member.element).Value();
                const Setting* const setting = FindSetting(member.name);
                if (setting == nullptr) {
                    throw Exception(
                        (IsReadOnly(member.name) ? "nobody can change " : "there is no setting ") +
                        ToJson(json::String(member.name)));
                }
                // A zero byte would end the text for some and not for others.
                if (value.find('\0') != std::string::npos || !setting->isValid(value)) {
                    throw Exception(member.name + " cannot be " + ToJson(json::String(value)));
                }
                changed.SetValue(setting->group, setting->key, value);
            }
            Keep(changed);
            return ToJson(wanted);
        } catch (const json::Exception& e) {
            throw Exception(std::string("Set takes an object of texts: ") + e.what());
        }
    }

private:
    static IniFile::Group GetActual() {
        const Network network = ReadNetwork();
        IniFile::Group values{{"[System]Hostname", network.hostname}};
        if (!network.interface.empty()) {
            values["[NIC/eth0]Name"] = network.interface;
            values["[NIC/eth0]EUI64"] = network.eui64;
            values["[IPv6/Actual]Addresses"] = StringUtil::Join(network.ipv6, ',');
        }
        if (network.mtu > 0) {
            values["[NIC/eth0]MTU"] = std::to_string(network.mtu);
        }
        if (!network.ipv4.empty()) {
            values["[IPv4/Actual]Address"] = network.ipv4;
        }
        return values;
    }

    /// The file first, and in one step: whatever happens, it and we hold all of a change or nothing of it.
    void Keep(const IniFile& changed) {
        const auto differs = [&](const char* group) { return changed[group] != GroupOf(_ini, group); };
        const bool isNtp = changed.HasGroup("NTP") && differs("NTP");
        const bool isLighttpd = changed.HasGroup("Lighttpd") && differs("Lighttpd");
        changed.Save(_path.c_str());
        _ini = changed;
        // The values count the changes since the service was started.
        if (isNtp) {
            NTPConfigChanged.FireEvent(++_ntpChanges);
        }
        if (isLighttpd) {
            LighttpdConfigChanged.FireEvent(++_lighttpdChanges);
        }
    }

    static IniFile::Group GroupOf(const IniFile& ini, const char* group) {
        return ini.HasGroup(group) ? ini[group] : IniFile::Group();
    }

    const std::string _path;
    IniFile _ini;
    unsigned int _ntpChanges = 0;
    unsigned int _lighttpdChanges = 0;
};

/// Fires the events of a service when the kernel reports a change. It only takes the report as a reason to
/// look: one that got lost, since many came at once, does no harm.
class NetworkWatch final : public zarip::osa::Runnable {
public:
    /// From here on no change is missed. @param service  *not owned*, must outlive the watch.
    NetworkWatch(INetworkingV2Provider& service, const zarip::core::Logger& logger)
        : _service(service), _logger(logger) {
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
        Check(::bind(_reports.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), "bind");
        if (_hostname.Get() < 0) {
            _logger.Warning("Changes of the host name go unnoticed here");
        }
        _known = ReadNetwork();
    }

    void Run() override {
        pollfd fds[] = {{_stop.Get(), POLLIN, 0}, {_reports.Get(), POLLIN, 0}, {_hostname.Get(), POLLPRI, 0}};
        while (::poll(fds, std::size(fds), -1) >= 0 || errno == EINTR) {
            if (fds[0].revents != 0) {
                return;
            }
            Drain();
            try {
                Compare(ReadNetwork());
            } catch (const std::exception& e) {
                _logger.Warning("%s", e.what());
            }
        }
        _logger.Error("poll: %s", std::strerror(errno));
    }

    void Stop() override { ::eventfd_write(_stop.Get(), 1); }

private:
    void Drain() const {
        char buffer[8192];
        while (::recv(_reports.Get(), buffer, sizeof(buffer), MSG_DONTWAIT) >= 0 || errno == ENOBUFS) {
        }
    }

    void Compare(const Network& now) {
        const Network before = std::exchange(_known, now);
        if (now.ipv4 != before.ipv4) {
            _service.IPv4AddressChange.FireEvent(now.ipv4);  // "" when it is gone
        }
        if (now.mtu != before.mtu) {
            _service.MTUChange.FireEvent(now.mtu);
        }
        if (now.hostname != before.hostname) {
            _service.HostnameChange.FireEvent(now.hostname);
        }
        for (const std::string& address : before.ipv6) {
            if (now.ipv6.count(address) == 0) {
                _service.IPv6AddressRemoved.FireEvent(address);
            }
        }
        for (const std::string& address : now.ipv6) {
            if (before.ipv6.count(address) == 0) {
                _service.IPv6AddressAdded.FireEvent(address);
            }
        }
    }

    INetworkingV2Provider& _service;
    const zarip::core::Logger& _logger;
    const Fd _stop{Check(::eventfd(0, EFD_CLOEXEC), "eventfd")};
    const Fd _reports{Check(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE), "socket")};
    const Fd _hostname{::open("/proc/sys/kernel/hostname", O_RDONLY | O_CLOEXEC)};
    Network _known;
};

int Usage(std::FILE* out) {
    std::fprintf(out,
                 "usage: networking-service FILE\n"
                 "  FILE  an INI file that holds the settings, such as networking.ini\n");
    return out == stdout ? 0 : 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        return Usage(stdout);
    }
    if (argc != 2) {
        return Usage(stderr);
    }
    try {
        const zarip::msgbus::StopSignal stop;
        const zarip::core::Logger* const logger = LogToStdout("Networking");
        NetworkingService service(argv[1]);
        zarip::msgbus::MsgBus bus;
        const std::unique_ptr<zarip::interfaces::InterfaceServer> server(
            INetworkingV2Provider::CreateServer(&bus, &service));
        NetworkWatch watch(service, *logger);
        zarip::osa::Thread thread("NetworkWatch", &watch, 131'072, 0);
        bus.StartServer();  // last: from here on calls are answered
        thread.Run();
        const bool isAsked = stop.Wait(bus);
        watch.Stop();
        thread.Join();
        return isAsked ? 0 : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "networking-service: %s\n", e.what());
        return 1;
    }
}
