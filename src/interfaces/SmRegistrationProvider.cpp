// SPDX-License-Identifier: MIT

#include "com.brelk.mirase.smRegistration.h"
#include "zarip/interfaces/ISmRegistrationProvider.h"
#include "zarip/interfaces/ServiceBinding.h"

namespace zarip::interfaces {

namespace {

using std::string;

constexpr const ServiceDescription& kService = descriptions::com_brelk_mirase_smRegistration;

class MsgBusSmRegistrationProvider final : public ISmRegistrationProvider {
public:
    explicit MsgBusSmRegistrationProvider(msgbus::IMsgBus* bus) : _remote(bus, kService, _timeout) {}

    bool IsRegistered() override { return _remote.Call<bool>("IsRegistered"); }
    bool IsSynced() override { return _remote.Call<bool>("IsSynced"); }
    void ResetSecurity() override { _remote.Send("ResetSecurity"); }
    void ResetSynced() override { _remote.Send("ResetSynced"); }
    void ForceRegister(const string& manager) override { _remote.Send("ForceRegister", manager); }

private:
    RemoteService _remote;
};

class SmRegistrationServer final : public ServiceServer<ISmRegistrationProvider> {
public:
    SmRegistrationServer(msgbus::IMsgBus* bus, ISmRegistrationProvider* implementation)
        : ServiceServer(bus, kService, implementation) {
        using I = ISmRegistrationProvider;
        Serve("IsRegistered", &I::IsRegistered);
        Serve("IsSynced", &I::IsSynced);
        Serve("ResetSecurity", &I::ResetSecurity);
        Serve("ResetSynced", &I::ResetSynced);
        Serve("ForceRegister", &I::ForceRegister);
    }
};

}  // namespace

ISmRegistrationProvider::ISmRegistrationProvider() : _timeout(kDefaultTimeout) {}
ISmRegistrationProvider::~ISmRegistrationProvider() = default;

ISmRegistrationProvider* ISmRegistrationProvider::CreateClient(msgbus::IMsgBus* bus) {
    return new MsgBusSmRegistrationProvider(bus);
}

InterfaceServer* ISmRegistrationProvider::CreateServer(msgbus::IMsgBus* bus,
                                                       ISmRegistrationProvider* implementation) {
    return new SmRegistrationServer(bus, implementation);
}

bool ISmRegistrationProvider::IsRegistered() {
    Unimplemented();
}
bool ISmRegistrationProvider::IsSynced() {
    Unimplemented();
}
void ISmRegistrationProvider::ResetSecurity() {
    Unimplemented();
}
void ISmRegistrationProvider::ResetSynced() {
    Unimplemented();
}
void ISmRegistrationProvider::ForceRegister(const string&) {
    Unimplemented();
}

}  // namespace zarip::interfaces
