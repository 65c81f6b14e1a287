// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>
#include <zarip/osa/TimeStruct.h>

namespace zarip::core {

/// Measures an interval on the monotonic clock. The owner sets `start` and `stop` with `osa::TimeMonotonic`.
/// *One thread at a time.*
class ZARIP_EXPORT Stopwatch {
public:
    /// @param startNow  if true, `start` is the present time; otherwise it is zero. `stop` is zero.
    explicit Stopwatch(bool startNow = false);
    Stopwatch(const Stopwatch& other);
    Stopwatch& operator=(const Stopwatch& other);
    virtual ~Stopwatch();

    /// Stores the time from `start` to `stop`. It does not read the clock. Throws `osa::Exception` "Stopwatch
    /// Never Started" if `start` is zero, and "Invalid parameter" if `stop` is before `start`.
    void Read(osa::TimeStruct& out) const;

    /// Returns the same time in seconds.
    double Read() const;

    osa::TimeStruct stop;
    osa::TimeStruct start;
};

}  // namespace zarip::core
