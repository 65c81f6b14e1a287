// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>
#include <zarip/osa/TimeStruct.h>

namespace zarip::osa {

/// The system's clocks. *Thread-safe*.

/// The real-time clock.
ZARIP_EXPORT void Time(TimeStruct& out);

/// Sets the real-time clock; returns 0, or -1 with errno.
ZARIP_EXPORT int SetTime(const TimeStruct& value);

/// The monotonic clock, rounded to the nearest microsecond.
ZARIP_EXPORT void TimeMonotonic(TimeStruct& out);

/// Returns the system's result, which is normally -1, because the monotonic clock cannot be set.
ZARIP_EXPORT int SetTimeMonotonic(const TimeStruct& value);

}  // namespace zarip::osa
