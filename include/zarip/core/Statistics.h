// SPDX-License-Identifier: MIT

#pragma once

#include <deque>

#include <zarip/osa/Export.h>

namespace zarip::core {

/// The last samples of a series, and the extremes and the number of all samples since the last reset. *One
/// thread at a time.*
class ZARIP_EXPORT Statistics {
public:
    /// @param capacity  the most samples kept; with 0 only the lifetime values are.
    explicit Statistics(unsigned int capacity);
    Statistics(const Statistics& other);
    Statistics& operator=(const Statistics& other);
    virtual ~Statistics();

    /// Adds a sample; the oldest beyond the capacity are dropped.
    void AddData(int sample);

    /// Values of the samples that are kept. They throw `osa::Exception` "No samples in statistics" if there
    /// are no samples. The sum wraps in 32 bits. The variance is that of the whole population, computed from
    /// the sum in single precision.
    int GetLastSample() const;
    int GetMinimum() const;
    int GetMaximum() const;
    int GetSum() const;
    float GetVariance() const;

    /// Forgets all samples and the lifetime values; the capacity stays.
    void Reset();

    void swap(Statistics& other);

    /// Prints a block of lines. If there are no samples, it throws as `GetMinimum` after the lines of the
    /// lifetime values.
    /// @param title  *not owned*, may be null.
    void PrintToStdout(const char* title) const;

private:
    void RequireSamples() const;
    float GetMean() const;

    unsigned int _capacity;
    std::deque<int> _samples;
    int _lifetimeMin;
    int _lifetimeMax;
    unsigned int _lifetimeCount;
};

}  // namespace zarip::core
