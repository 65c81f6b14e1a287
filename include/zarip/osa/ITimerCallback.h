// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>
#include <zarip/osa/TimeStruct.h>

namespace zarip::osa {

/// Is called by a `Timer` when its time has come.
class ZARIP_EXPORT ITimerCallback {
public:
    virtual ~ITimerCallback() = default;

    /// *Called on the thread "Timer"*, one callback of the process at a time, with no lock held, or on the
    /// thread that calls `Timer::Expire`. It may lock, allocate, and start and stop timers. A callback that
    /// takes long delays the callbacks of other timers. On the thread "Timer", an exception is logged.
    /// @param expiry, userData  the values that were passed to `Timer::Start`.
    virtual void OnTimer(const TimeStruct& expiry, void* userData) = 0;
};

}  // namespace zarip::osa
