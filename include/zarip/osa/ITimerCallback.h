// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>
#include <zarip/osa/TimeStruct.h>

namespace zarip::osa {

/// What a `Timer` calls.
class ZARIP_EXPORT ITimerCallback {
public:
    virtual ~ITimerCallback() = default;

    /// *Called on the thread "Timer"*, one callback of the process at a time, without any lock, or by
    /// `Timer::Expire`. It may lock, allocate, and start and stop timers. A callback that takes long delays
    /// the others. An exception is logged.
    virtual void OnTimer(const TimeStruct& expiry, void* userData) = 0;
};

}  // namespace zarip::osa
