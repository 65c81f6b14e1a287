// SPDX-License-Identifier: MIT

// illuminator            serves the lamp until SIGINT or SIGTERM comes or the bus is lost
// illuminator PERCENT    sets its brightness and prints what it is then; "off" switches it off

#include <signal.h>
#include <time.h>

#include <cstdio>
#include <string>

#include <zarip/msgbus/MsgBus.h>

#include "Lamp.h"

static int Serve() {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);  // first: threads inherit it
    zarip::msgbus::MsgBus bus;
    Lamp lamp;
    const IlluminatorServer server(&bus, &lamp);
    bus.StartServer();  // last: calls come in from here on
    const timespec second = {1, 0};
    while (bus.IsRunning()) {
        if (sigtimedwait(&stop, nullptr, &second) > 0) {
            return 0;
        }
    }
    return 1;
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
