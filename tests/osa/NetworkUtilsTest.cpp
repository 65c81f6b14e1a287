// SPDX-License-Identifier: MIT

#include <zarip/interfaces/INetworkingV2Provider.h>
#include <zarip/interfaces/InterfaceServer.h>
#include <zarip/msgbus/MsgBus.h>
#include <zarip/osa/NetworkUtils.h>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/ErrorOf.h"
#include "support/InThreads.h"
#include "support/PrivateBus.h"

namespace zarip::osa {
namespace {

using interfaces::INetworkingV2Provider;
using test::ErrorOf;

TEST(NetworkUtilsTest, AddressesAreClassifiedByTheirText) {
    const struct {
        const char* text;
        int family;
        bool isMulticast;
    } cases[] = {
        {"192.168.0.1", AF_INET, false},
        {"239.255.255.250", AF_INET, true},
        {"224.0.0.1", AF_INET, true},
        {"223.255.255.255", AF_INET, false},
        {"240.0.0.1", AF_INET, false},
        {"fe80::1", AF_INET6, false},
        {"ff02::c", AF_INET6, true},
        {"FF05::1", AF_INET6, true},
        {"::ff02", AF_INET6, false},
        {"::ffff:224.0.0.1", AF_INET6, false},
        {"eth0", 0, false},
        {"", 0, false},
        {"224.0.0", 0, false},
        {"ff02", 0, false},
        {"224.0.0.1 ", 0, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(NetworkUtils::IpAddressFamily(c.text), c.family) << c.text;
        EXPECT_EQ(NetworkUtils::IsMulticastAddress(c.text), c.isMulticast) << c.text;
    }
}

/// A networking service that answers as told.
class Networking final : public INetworkingV2Provider {
public:
    std::string Get(const std::string& query) override {
        _query = query;
        return _answer();
    }
    std::function<std::string()> _answer;
    std::string _query;
};

class NetworkUtilsQueryTest : public testing::Test {
protected:
    ~NetworkUtilsQueryTest() override { NetworkUtils::SetProvider(nullptr); }
    Networking _networking;
};

TEST_F(NetworkUtilsQueryTest, TheProviderIsAskedForOneSetting) {
    NetworkUtils::SetProvider(&_networking);
    EXPECT_EQ(NetworkUtils::GetProvider(), &_networking);
    const struct {
        std::string (*get)();
        const char* key;
        const char* failure;
    } queries[] = {
        {NetworkUtils::GetIpAddress, "[IPv4/Actual]Address", "Failed to determine our IP address"},
        {NetworkUtils::GetIpv6Addresses, "[IPv6/Actual]Addresses", "Failed to determine our IP address"},
        {NetworkUtils::GetEui64, "[NIC/eth0]EUI64", "Failed to determine our hardware address"},
    };
    for (const auto& query : queries) {
        const std::string member = "\"" + std::string(query.key) + "\"";
        for (const std::string& answer :
             {"{" + member + ":\"found\"}", "{ \"settings\" : { " + member + " : \"found\" } }",
              "{\"settings\":{" + member + ":\"other\"}," + member + ":\"found\"}"}) {
            _networking._answer = [&answer] { return answer; };
            EXPECT_EQ(query.get(), "found") << answer;
            EXPECT_EQ(_networking._query, "{\"settings\":[" + member + "]}");
        }
        for (const std::string& answer :
             {std::string(), std::string("{"), std::string("{}"), std::string("[]"),
              std::string("{\"settings\":{}}"), "{" + member + ":5}", "{\"settings\":[" + member + "]}"}) {
            _networking._answer = [&answer] { return answer; };
            EXPECT_EQ(ErrorOf(query.get), query.failure) << answer;
        }
        _networking._answer = []() -> std::string { throw Exception("out of order"); };
        EXPECT_EQ(ErrorOf(query.get), query.failure);
        _networking._answer = []() -> std::string { throw 1; };
        EXPECT_EQ(ErrorOf(query.get), query.failure);
    }
}

TEST_F(NetworkUtilsQueryTest, WithoutAProviderTheServiceOnTheBusIsAsked) {
    test::PrivateBus::Get();
    EXPECT_EQ(ErrorOf(NetworkUtils::GetIpAddress), "Failed to determine our IP address");

    // It is made once, however many threads ask.
    std::vector<INetworkingV2Provider*> providers(4);
    test::InThreads(4, [&](int i) { providers[static_cast<std::size_t>(i)] = NetworkUtils::GetProvider(); });
    EXPECT_EQ(providers, std::vector<INetworkingV2Provider*>(4, NetworkUtils::GetProvider()));

    msgbus::MsgBus bus;
    _networking._answer = [] { return "{\"[IPv4/Actual]Address\":\"10.0.0.7\"}"; };
    const std::unique_ptr<interfaces::InterfaceServer> server(
        INetworkingV2Provider::CreateServer(&bus, &_networking));
    bus.StartServer();
    EXPECT_EQ(NetworkUtils::GetIpAddress(), "10.0.0.7");
    EXPECT_EQ(ErrorOf(NetworkUtils::GetEui64), "Failed to determine our hardware address");
}

}  // namespace
}  // namespace zarip::osa
