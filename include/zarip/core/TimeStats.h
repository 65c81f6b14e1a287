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

    /// Counts an event. From the second event on, it adds a sample: the microseconds since the previous
    /// event, as a signed number of 32 bits. So a sample is negative after more than 35 minutes, and starts
    /// again from 0 after 71 minutes.
    void Trip();

private:
    bool _started = false;
    Stopwatch _stopwatch;
};

}  // namespace zarip::core
