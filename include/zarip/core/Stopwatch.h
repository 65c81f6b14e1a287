// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>
#include <zarip/osa/TimeStruct.h>

namespace zarip::core {

/// An interval on the monotonic clock, whose ends the owner sets (`osa::TimeMonotonic`). *One thread at a
/// time.*
class ZARIP_EXPORT Stopwatch {
public:
    /// @param startNow  whether `start` is now; otherwise both ends are zero.
    explicit Stopwatch(bool startNow = false);
    Stopwatch(const Stopwatch& other);
    Stopwatch& operator=(const Stopwatch& other);
    virtual ~Stopwatch();

    /// From `start` to `stop`; looks at no clock. Throw `osa::Exception` "Stopwatch Never Started" when
    /// `start` is zero, "Invalid parameter" when `stop` lies before it.
    void Read(osa::TimeStruct& out) const;

    /// The same in seconds.
    double Read() const;

    osa::TimeStruct stop;
    osa::TimeStruct start;
};

}  // namespace zarip::core
