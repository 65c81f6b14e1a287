// SPDX-License-Identifier: MIT

#include "com.brelk.brelkServices.h"
#include "zarip/interfaces/IBrelkServicesProvider.h"
#include "zarip/interfaces/ServiceBinding.h"

namespace zarip::interfaces {

namespace {

using std::string;
using Strings = std::vector<string>;

constexpr const ServiceDescription& kService = descriptions::com_brelk_brelkServices;

class MsgBusBrelkServicesProvider final : public IBrelkServicesProvider {
public:
    explicit MsgBusBrelkServicesProvider(msgbus::IMsgBus* bus) : _remote(bus, kService, _timeout) {
        _remote.Subscribe("StateChange", StateChange);
    }

    string GetAllServices() const override { return _remote.Call<string>("GetAllServices"); }
    string GetServicesByDeviceType(const string& deviceType) const override {
        return _remote.Call<string>("GetServicesByDeviceType", deviceType);
    }
    Strings GetCameraDeviceNames() const override { return _remote.Call<Strings>("GetCameraDeviceNames"); }

private:
    RemoteService _remote;
};

class BrelkServicesServer final : public ServiceServer<IBrelkServicesProvider> {
public:
    BrelkServicesServer(msgbus::IMsgBus* bus, IBrelkServicesProvider* implementation)
        : ServiceServer(bus, kService, implementation) {
        using I = IBrelkServicesProvider;
        Forward("StateChange", &I::StateChange);

        Serve("GetAllServices", &I::GetAllServices);
        Serve("GetServicesByDeviceType", &I::GetServicesByDeviceType);
        Serve("GetCameraDeviceNames", &I::GetCameraDeviceNames);
    }
};

}  // namespace

IBrelkServicesProvider::IBrelkServicesProvider() : _timeout(kDefaultTimeout) {}
IBrelkServicesProvider::~IBrelkServicesProvider() = default;

IBrelkServicesProvider* IBrelkServicesProvider::CreateClient(msgbus::IMsgBus* bus) {
    return new MsgBusBrelkServicesProvider(bus);
}

InterfaceServer* IBrelkServicesProvider::CreateServer(msgbus::IMsgBus* bus,
                                                      IBrelkServicesProvider* implementation) {
    return new BrelkServicesServer(bus, implementation);
}

string IBrelkServicesProvider::GetAllServices() const {
    Unimplemented();
}
string IBrelkServicesProvider::GetServicesByDeviceType(const string&) const {
    Unimplemented();
}
Strings IBrelkServicesProvider::GetCameraDeviceNames() const {
    Unimplemented();
}

}  // namespace zarip::interfaces
