// SPDX-License-Identifier: MIT

#include "com.brelk.hardware.ptzSerial.h"
#include "zarip/interfaces/IPtzSerialProvider.h"
#include "zarip/interfaces/ServiceBinding.h"

namespace zarip::interfaces {

namespace {

constexpr const ServiceDescription& kService = descriptions::com_brelk_hardware_ptzSerial;

using SetPtzSerialSettingsAndInitializeInputParms = Record<unsigned int, int, unsigned int, bool>;
// The result, then the output parameters.
using GetPtzSerialSettingsAndInitializeOutputParms = Record<unsigned int, int, unsigned int, bool>;

class MsgBusPtzSerialProvider final : public IPtzSerialProvider {
public:
    explicit MsgBusPtzSerialProvider(msgbus::IMsgBus* bus) : _remote(bus, kService, _timeout) {}

    void SetPtzSerialSettingsAndInitialize(unsigned int speed, int framing, unsigned int address,
                                           bool flag) override {
        _remote.Send("SetPtzSerialSettingsAndInitialize", speed, framing, address, flag);
    }
    unsigned int GetPtzSerialSettingsAndInitialize(int& framing, unsigned int& address, bool& flag) override {
        unsigned int speed = 0;
        std::tie(speed, framing, address, flag) =
            _remote.Call<GetPtzSerialSettingsAndInitializeOutputParms>("GetPtzSerialSettingsAndInitialize");
        return speed;
    }
    void SetPtzPollingState(bool on) override { _remote.Send("SetPtzPollingState", on); }
    bool GetPtzPollingState() override { return _remote.Call<bool>("GetPtzPollingState"); }

private:
    RemoteService _remote;
};

class PtzSerialServer final : public ServiceServer<IPtzSerialProvider> {
public:
    PtzSerialServer(msgbus::IMsgBus* bus, IPtzSerialProvider* implementation)
        : ServiceServer(bus, kService, implementation) {
        using I = IPtzSerialProvider;
        Serve<SetPtzSerialSettingsAndInitializeInputParms>("SetPtzSerialSettingsAndInitialize",
                                                           &I::SetPtzSerialSettingsAndInitialize);
        Add("GetPtzSerialSettingsAndInitialize",
            core::MakeDelegate(this, &PtzSerialServer::GetPtzSerialSettingsAndInitialize));
        Serve("SetPtzPollingState", &I::SetPtzPollingState);
        Serve("GetPtzPollingState", &I::GetPtzPollingState);
    }
    ~PtzSerialServer() override { Close(); }

private:
    GetPtzSerialSettingsAndInitializeOutputParms GetPtzSerialSettingsAndInitialize() {
        int framing = 0;
        unsigned int address = 0;
        bool flag = false;
        const unsigned int speed =
            GetImplementation().GetPtzSerialSettingsAndInitialize(framing, address, flag);
        return {speed, framing, address, flag};
    }
};

}  // namespace

IPtzSerialProvider::IPtzSerialProvider() : _timeout(kDefaultTimeout) {}
IPtzSerialProvider::~IPtzSerialProvider() = default;

IPtzSerialProvider* IPtzSerialProvider::CreateClient(msgbus::IMsgBus* bus) {
    return new MsgBusPtzSerialProvider(bus);
}

InterfaceServer* IPtzSerialProvider::CreateServer(msgbus::IMsgBus* bus, IPtzSerialProvider* implementation) {
    return new PtzSerialServer(bus, implementation);
}

void IPtzSerialProvider::SetPtzSerialSettingsAndInitialize(unsigned int, int, unsigned int, bool) {
    Unimplemented();
}
unsigned int IPtzSerialProvider::GetPtzSerialSettingsAndInitialize(int&, unsigned int&, bool&) {
    Unimplemented();
}
void IPtzSerialProvider::SetPtzPollingState(bool) {
    Unimplemented();
}
bool IPtzSerialProvider::GetPtzPollingState() {
    Unimplemented();
}

}  // namespace zarip::interfaces
