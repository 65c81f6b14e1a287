// SPDX-License-Identifier: MIT

#pragma once

#include <deque>

#include <zarip/osa/Export.h>

namespace zarip::core {

/// Keeps the last samples of a series. It also keeps the lifetime values: the minimum, the maximum and the
/// number of all samples since the last reset. *One thread at a time.*
class ZARIP_EXPORT Statistics {
public:
    /// @param capacity  how many samples are kept; with 0, only the lifetime values are kept.
    explicit Statistics(unsigned int capacity);
    Statistics(const Statistics& other);
    Statistics& operator=(const Statistics& other);
    virtual ~Statistics();

    /// Adds a sample. If there are more samples than the capacity, the oldest is dropped.
    void AddData(int sample);

    /// These functions compute values of the samples that are kept. They throw `osa::Exception` "No samples
    /// in statistics" if there are no samples. The sum wraps in 32 bits. The variance is that of the whole
    /// population, computed from the sum in single precision.
    int GetLastSample() const;
    int GetMinimum() const;
    int GetMaximum() const;
    int GetSum() const;
    float GetVariance() const;

    /// Removes all samples and resets the lifetime values. The capacity stays.
    void Reset();

    void swap(Statistics& other);

    /// Prints the values on several lines. If there are no samples, it prints the lifetime values and then
    /// throws what `GetMinimum` throws.
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
