// SPDX-License-Identifier: MIT

#pragma once

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <zarip/msgbus/IMsgBus.h>

/// Ends a service in order when it gets SIGINT or SIGTERM. Make it first in main: threads inherit that the
/// signals are blocked.
class WaitForStop {
public:
    WaitForStop() {
        sigemptyset(&_signals);
        sigaddset(&_signals, SIGINT);
        sigaddset(&_signals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &_signals, nullptr);
    }

    void Wait() const {
        int signal = 0;
        sigwait(&_signals, &signal);
    }

    /// Returns true when a signal came, and false when the bus is lost: then the process had better end and
    /// be started again.
    bool Wait(const zarip::msgbus::IMsgBus& bus) const {
        const timespec second = {1, 0};
        while (bus.IsRunning()) {
            if (sigtimedwait(&_signals, nullptr, &second) > 0) {
                return true;
            }
        }
        return false;
    }

private:
    sigset_t _signals;
};
