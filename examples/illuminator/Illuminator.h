// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/interfaces/ServiceBinding.h>

#include "com.example.Illuminator.h"

/// A lamp beside the camera. `SwitchOff` is one-way; the other members wait for the service.
class Illuminator {
public:
    virtual ~Illuminator() = default;
    virtual int GetBrightness() const { zarip::interfaces::Unimplemented(); }
    virtual bool SetBrightness(int /*percent*/) { zarip::interfaces::Unimplemented(); }
    virtual void SwitchOff() { zarip::interfaces::Unimplemented(); }

    int _timeout = zarip::interfaces::kDefaultTimeout;  ///< of a client, in milliseconds
    zarip::core::Event1<int> BrightnessChanged;
};

constexpr const auto& kIlluminator = zarip::descriptions::com_example_Illuminator;

class IlluminatorClient final : public Illuminator {
public:
    explicit IlluminatorClient(zarip::msgbus::IMsgBus* bus) : _remote(bus, kIlluminator, _timeout) {
        _remote.Subscribe("BrightnessChanged", BrightnessChanged);
    }
    int GetBrightness() const override { return _remote.Call<int>("GetBrightness"); }
    bool SetBrightness(int percent) override { return _remote.Call<bool>("SetBrightness", percent); }
    void SwitchOff() override { _remote.Send("SwitchOff"); }

private:
    zarip::interfaces::RemoteService _remote;
};

class IlluminatorServer final : public zarip::interfaces::ServiceServer<Illuminator> {
public:
    IlluminatorServer(zarip::msgbus::IMsgBus* bus, Illuminator* lamp)
        : ServiceServer(bus, kIlluminator, lamp) {
        Forward("BrightnessChanged", &Illuminator::BrightnessChanged);
        Serve("GetBrightness", &Illuminator::GetBrightness);
        Serve("SetBrightness", &Illuminator::SetBrightness);
        Serve("SwitchOff", &Illuminator::SwitchOff);
    }
};
