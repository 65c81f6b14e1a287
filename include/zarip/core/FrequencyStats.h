// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/core/Statistics.h>
#include <zarip/core/Stopwatch.h>
#include <zarip/osa/Export.h>

namespace zarip::core {

/// Statistics of how often something happens, in pulses per second. *One thread at a time.*
class ZARIP_EXPORT FrequencyStats : public Statistics {
public:
    explicit FrequencyStats(unsigned int capacity);
    ~FrequencyStats() override;

    /// Counts a pulse. From the second pulse on, it adds a sample: 1,000,000 divided by the microseconds
    /// since the previous pulse, without the fraction. The sample is 0 for pulses more than a second apart,
    /// and 1,000,000 for two pulses at the same time.
    void Pulse();

private:
    bool _started = false;
    Stopwatch _stopwatch;
};

}  // namespace zarip::core
