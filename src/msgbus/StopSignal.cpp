// SPDX-License-Identifier: MIT

#include "zarip/msgbus/StopSignal.h"

#include <pthread.h>
#include <time.h>

namespace zarip::msgbus {

StopSignal::StopSignal() {
    ::sigemptyset(&_signals);
    ::sigaddset(&_signals, SIGINT);
    ::sigaddset(&_signals, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &_signals, nullptr);
}

void StopSignal::Wait() const {
    int signal = 0;
    ::sigwait(&_signals, &signal);
}

bool StopSignal::Wait(const IMsgBus& bus) const {
    constexpr timespec kLook = {1, 0};
    while (bus.IsRunning()) {
        if (::sigtimedwait(&_signals, nullptr, &kLook) > 0) {
            return true;
        }
    }
    return false;
}

}  // namespace zarip::msgbus
