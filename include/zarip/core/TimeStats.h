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

    /// Tells of an event; from the second on each adds the time since the one before, in 32 bits: beyond 35
    /// minutes a sample is negative, beyond 71 it wraps.
    void Trip();

private:
    bool _started = false;
    Stopwatch _stopwatch;
};

}  // namespace zarip::core
