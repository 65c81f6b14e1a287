// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>
#include <zarip/osa/TimeStruct.h>

namespace zarip::core {

/// An interval on the monotonic clock. The owner sets both ends (`osa::TimeMonotonic`). *One thread at a
/// time.*
class ZARIP_EXPORT Stopwatch {
public:
    /// @param startNow  whether `start` is now; otherwise both ends are zero.
    explicit Stopwatch(bool startNow = false);
    Stopwatch(const Stopwatch& other);
    Stopwatch& operator=(const Stopwatch& other);
    virtual ~Stopwatch();

    /// The time from `start` to `stop`; it does not read the clock. Throws `osa::Exception` "Stopwatch Never
    /// Started" if `start` is zero, and "Invalid parameter" if `stop` is before `start`.
    void Read(osa::TimeStruct& out) const;

    /// The same in seconds.
    double Read() const;

    osa::TimeStruct stop;
    osa::TimeStruct start;
};

}  // namespace zarip::core
