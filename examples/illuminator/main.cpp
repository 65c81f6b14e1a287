// SPDX-License-Identifier: MIT

// illuminator            serves the lamp until SIGINT or SIGTERM comes or the bus is lost
// illuminator PERCENT    sets the brightness of the lamp and prints the new one; "off" switches the lamp off

#include <cstdio>
#include <string>

#include <zarip/msgbus/MsgBus.h>
#include <zarip/msgbus/StopSignal.h>

#include "Lamp.h"

static int Serve() {
    const zarip::msgbus::StopSignal stop;  // first, so that every thread leaves the signals to it
    zarip::msgbus::MsgBus bus;
    Lamp lamp;
    const IlluminatorServer server(&bus, &lamp);
    bus.StartServer();  // last, because calls are served from here on
    return stop.Wait(bus) ? 0 : 1;
}

static int Call(const std::string& brightness) {
    zarip::msgbus::MsgBus bus;
    IlluminatorClient lamp(&bus);
    brightness == "off" ? lamp.SwitchOff() : (void)lamp.SetBrightness(std::stoi(brightness));
    return std::printf("%d\n", lamp.GetBrightness()) > 0 ? 0 : 1;
}

int main(int argc, char** argv) try {
    return argc > 1 ? Call(argv[1]) : Serve();
} catch (const std::exception& e) {
    std::fprintf(stderr, "illuminator: %s\n", e.what());
    return 1;
}
