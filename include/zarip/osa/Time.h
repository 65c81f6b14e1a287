// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>
#include <zarip/osa/TimeStruct.h>

namespace zarip::osa {

// These functions read and set the clocks of the system. They are *thread-safe*.

/// Reads the real-time clock.
ZARIP_EXPORT void Time(TimeStruct& out);

/// Sets the real-time clock. Returns 0, or -1 with errno.
ZARIP_EXPORT int SetTime(const TimeStruct& value);

/// Reads the monotonic clock, rounded to the nearest microsecond.
ZARIP_EXPORT void TimeMonotonic(TimeStruct& out);

/// Tries to set the monotonic clock. Returns the result of the system, which is normally -1, because this
/// clock cannot be set.
ZARIP_EXPORT int SetTimeMonotonic(const TimeStruct& value);

}  // namespace zarip::osa
