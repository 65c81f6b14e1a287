// SPDX-License-Identifier: MIT

// Makes the camera known in its network: announces it and answers searches, as UPnP discovery (SSDP) asks.
//
//   discovery-responder DEVICE [LOCATION [MAX-AGE]]
//
//   DEVICE      device.ini, which web-gateway reads, too
//   LOCATION    where the description is: a URL, or a port, for /device.xml there at the own address. Without
//               it that is the port in DEVICE at which web-gateway listens. A URL is for a proxy; otherwise
//               nothing is announced unless web-gateway listens at the own address
//   MAX-AGE     the seconds for which others remember the device, 2 to 86400; 1800 if not given
//
// It works on the interface to which the system routes 239.255.255.250, with the IPv4 address that it finds
// there when it starts.
// Anybody can send datagrams in the name of another host, which would get the answers. So only searches that
// were sent to the group from an address of the interface's own network are answered, a few at a time, and
// each once, however often it came before it is answered. Each address has its share of these few
// (SearchQueue). Datagrams that are not searches for this device are ignored. What it sends to the group does
// not leave that network either.

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <zarip/core/Delegate.h>
#include <zarip/core/IniFile.h>
#include <zarip/core/Logger.h>
#include <zarip/core/StringUtil.h>
#include <zarip/core/ThreadPool.h>
#include <zarip/inet/HttpFormatter.h>
#include <zarip/inet/HttpParser.h>
#include <zarip/inet/UpnpRequest.h>
#include <zarip/inet/UpnpResponse.h>
#include <zarip/msgbus/StopSignal.h>
#include <zarip/osa/Exception.h>
#include <zarip/osa/IUdpBufferAccept.h>
#include <zarip/osa/MulticastServer.h>
#include <zarip/osa/UdpSocket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "common/SearchQueue.h"
#include "common/WebAddress.h"

namespace {

using zarip::core::StringUtil;
using zarip::inet::UpnpRequest;
using zarip::inet::UpnpResponse;
using zarip::osa::TimeSpan;
using zarip::osa::UdpSocket;
using Clock = std::chrono::steady_clock;

constexpr const char* kGroup = "239.255.255.250";
constexpr unsigned short kPort = 1900;
constexpr unsigned int kMaxDatagram = 1400;
constexpr std::size_t kMaxUrl = 256;
constexpr int kMaxDelay = 5;                     // seconds, whatever a search allows
constexpr std::size_t kMaxAnswersInSecond = 10;  // to one address
constexpr std::size_t kMaxGrowth = 4;            // times the bytes of a search are answered
constexpr int kFirstAnnouncements = 3;           // datagrams get lost
constexpr TimeSpan kLook = TimeSpan::FromMilliseconds(50);
constexpr TimeSpan kFirstPause = TimeSpan::FromSeconds(1);

int Random(int least, int most) {
    thread_local std::minstd_rand engine{std::random_device{}()};
    return std::uniform_int_distribution<int>(least, most)(engine);
}

std::string Now() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    ::gmtime_r(&now, &utc);
    char text[64];
    std::strftime(text, sizeof(text), "%a, %d %b %Y %H:%M:%S GMT", &utc);
    return text;
}

/// "Linux/6.1 UPnP/1.0 zarip-demo/1.0"
std::string ServerName() {
    utsname system{};
    ::uname(&system);
    unsigned int version[2] = {};
    std::sscanf(system.release, "%u.%u", &version[0], &version[1]);
    return std::string(system.sysname) + "/" + std::to_string(version[0]) + "." + std::to_string(version[1]) +
           " UPnP/1.0 zarip-demo/1.0";
}

struct Interface {
    std::string address;
    in_addr_t network = 0;
    in_addr_t mask = 0;

    bool IsNear(const char* other) const {
        in_addr parsed{};
        return ::inet_pton(AF_INET, other, &parsed) == 1 && (parsed.s_addr & mask) == network;
    }
};

/// The one that the system's routes name for the group. Throws when there is none.
Interface FindInterface() {
    sockaddr_in group{};
    group.sin_family = AF_INET;
    group.sin_port = htons(kPort);
    ::inet_pton(AF_INET, kGroup, &group.sin_addr);
    sockaddr_in own{};
    socklen_t size = sizeof(own);
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool hasRoute = fd >= 0 &&
                          ::connect(fd, reinterpret_cast<const sockaddr*>(&group), sizeof(group)) == 0 &&
                          ::getsockname(fd, reinterpret_cast<sockaddr*>(&own), &size) == 0;
    ::close(fd);
    ifaddrs* all = nullptr;
    if (!hasRoute || ::getifaddrs(&all) != 0) {
        throw zarip::osa::Exception("there is no route to the group");
    }
    if (own.sin_addr.s_addr == htonl(INADDR_ANY)) {
        // An address that is valid on the machine only is not offered for a group: it is the loopback's.
        own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owned(all, &::freeifaddrs);
    for (const ifaddrs* entry = all; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_netmask == nullptr ||
            entry->ifa_addr->sa_family != AF_INET) {
            continue;
        }
        sockaddr_in address{};
        sockaddr_in mask{};
        std::memcpy(&address, entry->ifa_addr, sizeof(address));
        std::memcpy(&mask, entry->ifa_netmask, sizeof(mask));
        if (address.sin_addr.s_addr == own.sin_addr.s_addr) {
            char text[INET_ADDRSTRLEN];
            ::inet_ntop(AF_INET, &own.sin_addr, text, sizeof(text));
            return {text, own.sin_addr.s_addr & mask.sin_addr.s_addr, mask.sin_addr.s_addr};
        }
    }
    throw zarip::osa::Exception("no interface has the address that is routed to the group");
}

/// What is searched for and announced, and the name of the device as such.
struct Target {
    std::string type;
    std::string name;
};

/// The seconds that a search allows for its answer; 0 if it does not say so or allows none, and is ignored.
int MaxDelay(const std::string* value) {
    const std::string digits = value != nullptr ? StringUtil::Strip(*value) : "";
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) {
        return 0;
    }
    unsigned int seconds = 0;
    return StringUtil::TryParse(digits, seconds) && seconds < kMaxDelay ? static_cast<int>(seconds)
                                                                        : kMaxDelay;
}

template <class Message>
std::string Format(const Message& message) {
    std::ostringstream out;
    out << message;
    return out.str();
}

void Send(const UdpSocket& socket, const std::string& text, const char* host, unsigned short port) {
    socket.SendTo(reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned int>(text.size()),
                  host, port);
}

/// Searches come in on the server's thread; answers and announcements go out on the pool's.
class Responder final : public zarip::osa::IUdpBufferAccept {
public:
    /// @param location  a URL, or empty for the description at the web's own address.
    Responder(const std::string& deviceType, const std::string& udn, std::string location, WebAddress web,
              int maxAge)
        : _targets{{"upnp:rootdevice", udn + "::upnp:rootdevice"},
                   {udn, udn},
                   {deviceType, udn + "::" + deviceType}},
          _location(std::move(location)),
          _web(std::move(web)),
          _maxAge(maxAge) {}

    void Start() {
        _server.AddMembership(kGroup);
        _server.AddOnStartDelegate(zarip::core::MakeDelegate(this, &Responder::OnStart));
        _server.AddOnErrorDelegate(zarip::core::MakeDelegate(this, &Responder::OnError));
        _server.Start(this);
    }

    /// Answers that still wait are not given any more.
    void Stop() {
        _server.Stop();
        _pool.reset();
        if (!_interface.address.empty()) {
            Notify("ssdp:byebye");
        }
    }

    bool HasFailed() const { return _hasFailed; }

    void AcceptBuffer(const unsigned char* buffer, unsigned int length,
                      const UdpSocket::Info& info) override {
        try {
            if (length > kMaxDatagram || info.remotePort == 0 || std::strcmp(info.localIpv4, kGroup) != 0 ||
                !GetInterface().IsNear(info.remoteIpv4)) {
                return;
            }
            std::istringstream in(std::string(reinterpret_cast<const char*>(buffer), length));
            UpnpRequest request;
            in >> request;
            const std::string* const what = request.GetHeader("MAN");
            const std::string* const type = request.GetST();
            const int delay = MaxDelay(request.GetMX());
            if (request.GetMethod() == UpnpRequest::MSER && request.GetPath() == "*" &&
                request.GetProtocol() == "HTTP/1.1" && what != nullptr && *what == "\"ssdp:discover\"" &&
                delay > 0 && type != nullptr && !Matching(*type).empty()) {
                Queue({info.remoteIpv4, info.remotePort, *type, length}, delay);
            }
        } catch (...) {
            // It was not a search. An exception that leaves this function would end an attempt of the server.
            // Not all that the parser throws is a std::exception.
        }
    }

private:
    /// May come again, when the socket was lost; may throw, and is tried again.
    void OnStart() {
        const Interface found = FindInterface();
        if (_location.empty() && !_web.IsServedAt(found.address)) {
            throw zarip::osa::Exception("web-gateway listens at " + _web.address + " and not at " +
                                        found.address + ": set [web] address, or name a URL");
        }
        bool isFirst = false;
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            isFirst = _interface.address.empty();
            _interface = found;
        }
        std::printf("answering searches at %s, location %s\n", found.address.c_str(),
                    Location(found).c_str());
        std::fflush(stdout);
        if (isFirst) {
            _pool->GetTaskQueue()->QueueTask(zarip::core::MakeDelegate(this, &Responder::Announce));
        }
    }

    void OnError() {
        _hasFailed = true;
        ::kill(::getpid(), SIGTERM);  // what main waits for
    }

    Interface GetInterface() const {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _interface;
    }

    std::string Location(const Interface& interface) const {
        return _location.empty()
                   ? "http://" + interface.address + ":" + std::to_string(_web.port) + "/device.xml"
                   : _location;
    }

    std::vector<Target> Matching(const std::string& type) const {
        std::vector<Target> matching;
        for (const Target& target : _targets) {
            if (type == "ssdp:all" || type == target.type) {
                matching.push_back(target);
            }
        }
        return matching;
    }

    void Queue(const Search& search, int maxDelay) {
        const std::lock_guard<std::mutex> lock(_mutex);
        const Clock::time_point now = Clock::now();
        _searches.Add(search, now + std::chrono::milliseconds(Random(0, maxDelay * 1'000)),
                      now + std::chrono::seconds(maxDelay));
        LookAgain();
    }

    /// Has the pool look for due searches after a while, if any wait; needs the lock.
    void LookAgain() {
        if (!_isLooking && !_searches.IsEmpty()) {
            _pool->GetTaskQueue()->QueueTask(kLook, zarip::core::MakeDelegate(this, &Responder::AnswerDue));
            _isLooking = true;
        }
    }

    /// Called on the pool's thread, by the one task that looks.
    void AnswerDue() {
        while (const std::optional<Search> search = TakeSearch()) {
            try {
                Reply(*search);
            } catch (const std::exception& e) {
                _logger->Warning("A search from %s is not answered: %s", search->address.c_str(), e.what());
            }
        }
    }

    std::optional<Search> TakeSearch() {
        const std::lock_guard<std::mutex> lock(_mutex);
        std::optional<Search> search = _searches.Take(Clock::now());
        if (!search) {
            _isLooking = false;
            LookAgain();
        }
        return search;
    }

    void Reply(const Search& search) {
        const Interface interface = GetInterface();
        const UdpSocket socket(interface.address.c_str(), 0, 0);
        std::size_t left = kMaxGrowth * search.length;
        for (const Target& target : Matching(search.type)) {
            UpnpResponse response;
            response.SetCode(200);
            response.SetCatchControl(MaxAge().c_str());
            response.SetHeader("DATE", Now());
            response.SetHeader("EXT", "");
            response.SetLocation(Location(interface).c_str());
            response.SetServer(_serverName.c_str());
            response.SetST(target.type.c_str());
            response.SetUSN(target.name.c_str());
            const std::string text = Format(response);
            if (text.size() > left || !TakeAnswer(search.address)) {
                return;  // a forged sender is not flooded
            }
            left -= text.size();
            Send(socket, text, search.address.c_str(), search.port);
        }
    }

    /// Whether the address may get one more answer; counts it. Called on the pool's thread alone.
    bool TakeAnswer(const std::string& address) {
        const Clock::time_point now = Clock::now();
        for (auto answers = _answers.begin(); answers != _answers.end();) {
            while (!answers->second.empty() && now - answers->second.front() > std::chrono::seconds(1)) {
                answers->second.pop_front();
            }
            answers = answers->second.empty() ? _answers.erase(answers) : std::next(answers);
        }
        std::deque<Clock::time_point>& last = _answers[address];
        if (last.size() >= kMaxAnswersInSecond) {
            return false;
        }
        last.push_back(now);
        return true;
    }

    /// The next one comes after a quarter to a half of the time for which others remember this one.
    void Announce() {
        const TimeSpan pause = ++_announcements < kFirstAnnouncements
                                   ? kFirstPause
                                   : TimeSpan::FromMilliseconds(Random(_maxAge * 250, _maxAge * 500));
        _pool->GetTaskQueue()->QueueTask(pause, zarip::core::MakeDelegate(this, &Responder::Announce));
        Notify("ssdp:alive");
    }

    void Notify(const char* what) {
        const Interface interface = GetInterface();
        const UdpSocket socket(interface.address.c_str(), 0, 0);
        for (const Target& target : _targets) {
            UpnpRequest request;
            request.SetMethod(UpnpRequest::NOTF);
            request.SetHost((std::string(kGroup) + ":" + std::to_string(kPort)).c_str());
            request.SetNT(target.type.c_str());
            request.SetNTS(what);
            request.SetUSN(target.name.c_str());
            if (std::strcmp(what, "ssdp:alive") == 0) {
                request.SetCatchControl(MaxAge().c_str());
                request.SetLocation(Location(interface).c_str());
                request.SetServer(_serverName.c_str());
            }
            Send(socket, Format(request), kGroup, kPort);
        }
    }

    std::string MaxAge() const { return "max-age=" + std::to_string(_maxAge); }

    zarip::core::Logger* const _logger = zarip::core::Logger::GetLogger("DiscoveryResponder");
    const std::vector<Target> _targets;
    const std::string _location;
    const WebAddress _web;
    const int _maxAge;
    const std::string _serverName = ServerName();
    std::atomic<bool> _hasFailed{false};
    mutable std::mutex _mutex;
    Interface _interface;
    SearchQueue _searches;
    bool _isLooking = false;  // a task of the pool does so, or will
    int _announcements = 0;
    std::map<std::string, std::deque<Clock::time_point>> _answers;  // of the last second, by address
    std::unique_ptr<zarip::core::ThreadPool> _pool = std::make_unique<zarip::core::ThreadPool>();
    /// One byte more, so that a datagram that was cut is told from one that just fits.
    zarip::osa::MulticastServer _server{"0.0.0.0", kPort, kMaxDatagram + 1, 0};
};

int Usage(std::FILE* out) {
    std::fprintf(out,
                 "usage: discovery-responder DEVICE [LOCATION [MAX-AGE]]\n"
                 "  DEVICE    an INI file whose group \"device\" holds UDN and deviceType\n"
                 "  LOCATION  where the description is: an http URL, or the port of /device.xml;\n"
                 "            that of the group \"web\" in DEVICE if it is not given\n"
                 "  MAX-AGE   seconds for which others remember the device, 2 to 86400\n");
    return out == stdout ? 0 : 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        return Usage(stdout);
    }
    std::string location = argc > 2 ? argv[2] : "";
    int port = 0;
    int maxAge = 1'800;
    if (StringUtil::TryParse(location, port)) {
        location.clear();
    }
    const bool isUrl = StringUtil::StartsWith(location, "http://") && location.size() <= kMaxUrl &&
                       std::none_of(location.begin(), location.end(),
                                    [](unsigned char c) { return c <= 0x20 || c == 0x7F; });
    const bool isPort = argc > 2 && location.empty();
    if (argc < 2 || argc > 4 || (isPort ? port < 1 || port > 65'535 : argc > 2 && !isUrl) ||
        (argc == 4 && (!StringUtil::TryParse(argv[3], maxAge) || maxAge < 2 || maxAge > 86'400))) {
        return Usage(stderr);
    }
    try {
        const zarip::msgbus::StopSignal stop;
        zarip::core::IniFile settings;
        settings.SetValue("log", "log.stdout", "true");
        zarip::core::Logger::ConfigureLogging(settings, "log");

        const zarip::core::IniFile device(argv[1]);
        const std::string& udn = device.GetValue("device", "UDN");
        const std::string& type = device.GetValue("device", "deviceType");
        if (!StringUtil::StartsWith(udn, "uuid:") || udn.size() > 64 || type.empty() || type.size() > 128) {
            throw zarip::osa::Exception("UDN must be \"uuid:...\", and deviceType a type");
        }
        WebAddress web(device);
        web.port = port > 0 ? port : web.port;
        Responder responder(type, udn, location, web, maxAge);
        responder.Start();
        stop.Wait();
        responder.Stop();
        return responder.HasFailed() ? 1 : 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "discovery-responder: %s\n", e.what());
        return 1;
    }
}
