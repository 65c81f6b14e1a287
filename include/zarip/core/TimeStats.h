// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/core/Statistics.h>
#include <zarip/core/Stopwatch.h>
#include <zarip/osa/Export.h>

namespace zarip::core {

/// Statistics of the time between events in microseconds. *One thread at a time.*
class ZARIP_EXPORT TimeStats : public Statistics {
public:
    explicit TimeStats(unsigned int capacity);
    ~TimeStats() override;

    /// Counts an event. From the second event on it adds a sample: the time since the event before, in 32
    /// bits. After 35 minutes a sample is negative, after 71 it wraps.
    void Trip();

private:
    bool _started = false;
    Stopwatch _stopwatch;
};

}  // namespace zarip::core
