// SPDX-License-Identifier: MIT

// A process with a connection to the bus and nothing to do; with an argument it ends as soon as it is loaded.

#include <cstdio>

#include <zarip/msgbus/MsgBus.h>

int main(int count, char**) {
    if (count > 1) {
        return 0;
    }
    const zarip::msgbus::MsgBus bus;
    std::puts("connected");
    std::fflush(stdout);
    return std::getchar() == EOF ? 0 : 1;
}
