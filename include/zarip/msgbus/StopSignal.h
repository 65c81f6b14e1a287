// SPDX-License-Identifier: MIT

#pragma once

#include <signal.h>

#include <zarip/msgbus/IMsgBus.h>
#include <zarip/osa/Export.h>

namespace zarip::msgbus {

/// Lets a service shut down in order when it receives SIGINT or SIGTERM.
///
/// The constructor blocks both signals for the calling thread and for the threads that it starts later, so
/// make the object first in `main`. The signals stay blocked after its destruction. *One thread at a time*
/// may wait, any number of times.
class ZARIP_EXPORT StopSignal {
public:
    StopSignal();

    /// Waits until one of the signals arrives.
    void Wait() const;

    /// Returns true when one of the signals arrives. Returns false within a second after the listen thread of
    /// the bus has ended, for example because the bus is lost. The process should then exit and be restarted.
    bool Wait(const IMsgBus& bus) const;

private:
    sigset_t _signals;
};

}  // namespace zarip::msgbus
