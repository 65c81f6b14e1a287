// SPDX-License-Identifier: MIT

#include "com.brelk.video.streamInfo.h"
#include "zarip/interfaces/IStreamInfoProvider.h"
#include "zarip/interfaces/ServiceBinding.h"

namespace zarip::interfaces {

namespace {

using std::string;

constexpr const ServiceDescription& kService = descriptions::com_brelk_video_streamInfo;

class MsgBusStreamInfoProvider final : public IStreamInfoProvider {
public:
    explicit MsgBusStreamInfoProvider(msgbus::IMsgBus* bus) : _remote(bus, kService, _timeout) {}

    int GetCurrentVideoConnections(const string& stream) const override {
        return _remote.Call<int>("GetCurrentVideoConnections", stream);
    }
    int GetGuaranteedVideoConnections(const string& stream) const override {
        return _remote.Call<int>("GetGuaranteedVideoConnections", stream);
    }

private:
    RemoteService _remote;
};

class StreamInfoServer final : public ServiceServer<IStreamInfoProvider> {
public:
    StreamInfoServer(msgbus::IMsgBus* bus, IStreamInfoProvider* implementation)
        : ServiceServer(bus, kService, implementation) {
        using I = IStreamInfoProvider;
        Serve("GetCurrentVideoConnections", &I::GetCurrentVideoConnections);
        Serve("GetGuaranteedVideoConnections", &I::GetGuaranteedVideoConnections);
    }
};

}  // namespace

IStreamInfoProvider::IStreamInfoProvider() : _timeout(kDefaultTimeout) {}
IStreamInfoProvider::~IStreamInfoProvider() = default;

IStreamInfoProvider* IStreamInfoProvider::CreateClient(msgbus::IMsgBus* bus) {
    return new MsgBusStreamInfoProvider(bus);
}

InterfaceServer* IStreamInfoProvider::CreateServer(msgbus::IMsgBus* bus,
                                                   IStreamInfoProvider* implementation) {
    return new StreamInfoServer(bus, implementation);
}

int IStreamInfoProvider::GetCurrentVideoConnections(const string&) const {
    Unimplemented();
}
int IStreamInfoProvider::GetGuaranteedVideoConnections(const string&) const {
    Unimplemented();
}

}  // namespace zarip::interfaces
