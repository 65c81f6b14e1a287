// SPDX-License-Identifier: MIT

#pragma once

#include <signal.h>

#include <zarip/msgbus/IMsgBus.h>
#include <zarip/osa/Export.h>

namespace zarip::msgbus {

/// Lets a service end in order when it gets SIGINT or SIGTERM.
///
/// The constructor blocks both signals for its thread and the threads that this one starts later, so it comes
/// first in `main`. They stay blocked when the object is gone. *One thread* waits, and may do so several
/// times.
class ZARIP_EXPORT StopSignal {
public:
    StopSignal();

    /// Returns when one of the signals comes.
    void Wait() const;

    /// Returns true when one of the signals comes, and false within a second after the listen thread of the
    /// bus has ended, as it does when the bus is lost. The process should then end and be started again.
    bool Wait(const IMsgBus& bus) const;

private:
    sigset_t _signals;
};

}  // namespace zarip::msgbus
