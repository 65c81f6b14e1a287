// SPDX-License-Identifier: MIT

#include "com.brelk.networkingV2.h"
#include "zarip/interfaces/INetworkingV2Provider.h"
#include "zarip/interfaces/ServiceBinding.h"

namespace zarip::interfaces {

namespace {

using std::string;

constexpr const ServiceDescription& kService = descriptions::com_brelk_networkingV2;

class MsgBusNetworkingV2Provider final : public INetworkingV2Provider {
public:
    explicit MsgBusNetworkingV2Provider(msgbus::IMsgBus* bus) : _remote(bus, kService, _timeout) {
        _remote.Subscribe("IPv4AddressChange", IPv4AddressChange);
        _remote.Subscribe("MTUChange", MTUChange);
        _remote.Subscribe("HostnameChange", HostnameChange);
        _remote.Subscribe("IPv6AddressAdded", IPv6AddressAdded);
        _remote.Subscribe("IPv6AddressRemoved", IPv6AddressRemoved);
        _remote.Subscribe("NTPConfigChanged", NTPConfigChanged);
        _remote.Subscribe("LighttpdConfigChanged", LighttpdConfigChanged);
    }

    string Get(const string& query) override { return _remote.Call<string>("Get", query); }
    string Set(const string& settings) override { return _remote.Call<string>("Set", settings); }

private:
    RemoteService _remote;
};

class NetworkingV2Server final : public ServiceServer<INetworkingV2Provider> {
public:
    NetworkingV2Server(msgbus::IMsgBus* bus, INetworkingV2Provider* implementation)
        : ServiceServer(bus, kService, implementation) {
        using I = INetworkingV2Provider;
        Forward("IPv4AddressChange", &I::IPv4AddressChange);
        Forward("MTUChange", &I::MTUChange);
        Forward("HostnameChange", &I::HostnameChange);
        Forward("IPv6AddressAdded", &I::IPv6AddressAdded);
        Forward("IPv6AddressRemoved", &I::IPv6AddressRemoved);
        Forward("NTPConfigChanged", &I::NTPConfigChanged);
        Forward("LighttpdConfigChanged", &I::LighttpdConfigChanged);

        Serve("Get", &I::Get);
        Serve("Set", &I::Set);
    }
};

}  // namespace

INetworkingV2Provider::INetworkingV2Provider() : _timeout(kDefaultTimeout) {}
INetworkingV2Provider::~INetworkingV2Provider() = default;

INetworkingV2Provider* INetworkingV2Provider::CreateClient(msgbus::IMsgBus* bus) {
    return new MsgBusNetworkingV2Provider(bus);
}

InterfaceServer* INetworkingV2Provider::CreateServer(msgbus::IMsgBus* bus,
                                                     INetworkingV2Provider* implementation) {
    return new NetworkingV2Server(bus, implementation);
}

string INetworkingV2Provider::Get(const string&) {
    Unimplemented();
}
string INetworkingV2Provider::Set(const string&) {
    Unimplemented();
}

}  // namespace zarip::interfaces
