// SPDX-License-Identifier: MIT

#include "zarip/osa/NetworkUtils.h"

#include <arpa/inet.h>
#include <cajun/json/elements.h>

#include <atomic>
#include <cstdlib>
#include <memory>

#include "osa/DescribeCaught.h"
#include "zarip/core/JsonUtils.h"
#include "zarip/core/Logger.h"
#include "zarip/interfaces/INetworkingV2Provider.h"
#include "zarip/msgbus/MsgBus.h"
#include "zarip/osa/Exception.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::osa {

namespace {

using interfaces::INetworkingV2Provider;

std::atomic<INetworkingV2Provider*> s_provider{nullptr};

/// The client on a connection of its own. It is never destroyed, because threads may still ask while the
/// process ends.
INetworkingV2Provider* OwnClient() {
    static auto* const s_mutex = new Mutex("NetworkUtils");
    static INetworkingV2Provider* s_client = nullptr;
    const MutexAutoLock lock(s_mutex);
    if (s_client == nullptr) {
        auto bus = std::make_unique<msgbus::MsgBus>();
        bus->StartServer();
        s_client = INetworkingV2Provider::CreateClient(bus.get());
        static_cast<void>(bus.release());  // the client owns it now
    }
    return s_client;
}

std::string Request(const char* key) {
    json::Array keys;
    keys.Insert(json::String(key));
    json::Object request;
    request.Insert(json::Object::Member("settings", keys));
    return core::JsonUtils::ToString(request);
}

/// The value is at the top level of the answer or under "settings".
std::string ValueOf(const json::Object& answer, const char* key) {
    const bool isAtTop = answer.Find(key) != answer.End();
    const json::Object& settings = isAtTop ? answer : static_cast<const json::Object&>(answer["settings"]);
    const json::String& value = settings[key];
    return value.Value();
}

std::string Query(const char* key, const char* failure) {
    std::string reason;
    try {
        return ValueOf(core::JsonUtils::ParseObject(NetworkUtils::GetProvider()->Get(Request(key))), key);
    } catch (...) {
        reason = DescribeCaught();
    }
    static auto* const s_logger = core::Logger::GetLogger("NetworkUtils");
    s_logger->Debug("%s: %s", key, reason.c_str());
    throw Exception(std::string(failure));
}

constexpr char kNoIpAddress[] = "Failed to determine our IP address";

}  // namespace

int NetworkUtils::IpAddressFamily(const std::string& address) {
    in6_addr ignored{};
    for (const int family : {AF_INET, AF_INET6}) {
        if (::inet_pton(family, address.c_str(), &ignored) == 1) {
            return family;
        }
    }
    return 0;
}

bool NetworkUtils::IsMulticastAddress(const std::string& address) {
    switch (IpAddressFamily(address)) {
        case AF_INET:
            return (std::strtol(address.c_str(), nullptr, 10) & 0xF0) == 224;
        case AF_INET6:
            return (std::strtol(address.c_str(), nullptr, 16) & 0xFF00) == 0xFF00;
        default:
            return false;
    }
}

void NetworkUtils::SetProvider(INetworkingV2Provider* provider) {
    s_provider = provider;
}

INetworkingV2Provider* NetworkUtils::GetProvider() {
    INetworkingV2Provider* const provider = s_provider;
    return provider != nullptr ? provider : OwnClient();
}

std::string NetworkUtils::GetIpAddress() {
    return Query("[IPv4/Actual]Address", kNoIpAddress);
}

std::string NetworkUtils::GetIpv6Addresses() {
    return Query("[IPv6/Actual]Addresses", kNoIpAddress);
}

std::string NetworkUtils::GetEui64() {
    return Query("[NIC/eth0]EUI64", "Failed to determine our hardware address");
}

}  // namespace zarip::osa
