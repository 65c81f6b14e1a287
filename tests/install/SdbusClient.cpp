// SPDX-License-Identifier: MIT

// Calls the illuminator with what sdbus-c++-xml2cpp makes of its description, and prints what comes back.

#include <sdbus-c++/sdbus-c++.h>

#include <cstdio>
#include <future>
#include <string>

#include "Proxy.h"

// Version 2 has types for names; version 1 does not have this header.
#if __has_include(<sdbus-c++/VTableItems.h>)
using sdbus::ObjectPath;
using sdbus::ServiceName;
#else
using ObjectPath = std::string;
using ServiceName = std::string;
#endif

class Lamp final : public sdbus::ProxyInterfaces<com::example::Illuminator_proxy> {
public:
    Lamp() : ProxyInterfaces(ServiceName("com.example.Illuminator"), ObjectPath("/com/example/Illuminator")) {
        registerProxy();
    }
    ~Lamp() { unregisterProxy(); }
    void onBrightnessChanged(const int32_t& percent) override { _change.set_value(percent); }
    int32_t WaitForChange() {
        const int32_t percent = _change.get_future().get();
        _change = {};
        return percent;
    }

private:
    std::promise<int32_t> _change;
};

int main() {
    Lamp lamp;
    const bool done = lamp.SetBrightness(40);
    const int32_t first = lamp.WaitForChange();
    const bool tooBright = lamp.SetBrightness(101);
    lamp.SwitchOff();
    const int32_t second = lamp.WaitForChange();
    std::printf("%d %d %d %d %d\n", done, first, tooBright, second, lamp.GetBrightness());
}
