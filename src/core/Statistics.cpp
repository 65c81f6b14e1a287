// SPDX-License-Identifier: MIT

#include "zarip/core/Statistics.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <utility>

#include "zarip/core/BooleanStats.h"
#include "zarip/core/DataStats.h"
#include "zarip/core/FrequencyStats.h"
#include "zarip/core/TimeStats.h"
#include "zarip/osa/Exception.h"
#include "zarip/osa/Time.h"

namespace zarip::core {

namespace {

constexpr unsigned int kMicrosecondsPerSecond = 1'000'000;

/// The time since the last lap. False for the first lap.
bool TakeLap(bool& started, Stopwatch& stopwatch, unsigned long long& microseconds) {
    osa::TimeMonotonic(stopwatch.stop);
    if (started) {
        osa::TimeStruct elapsed;
        stopwatch.Read(elapsed);
        microseconds =
            static_cast<unsigned long long>(elapsed.seconds) * kMicrosecondsPerSecond + elapsed.microseconds;
    }
    stopwatch.start = stopwatch.stop;
    return std::exchange(started, true);
}

}  // namespace

Statistics::Statistics(unsigned int capacity) : _capacity(capacity) {
    Reset();
}

Statistics::Statistics(const Statistics& other) = default;
Statistics& Statistics::operator=(const Statistics& other) = default;
Statistics::~Statistics() = default;

void Statistics::AddData(int sample) {
    _samples.push_back(sample);
    while (_samples.size() > _capacity) {
        _samples.pop_front();
    }
    _lifetimeMin = std::min(_lifetimeMin, sample);
    _lifetimeMax = std::max(_lifetimeMax, sample);
    ++_lifetimeCount;
}

void Statistics::RequireSamples() const {
    if (_samples.empty()) {
        throw osa::Exception("No samples in statistics");
    }
}

int Statistics::GetLastSample() const {
    RequireSamples();
    return _samples.back();
}

int Statistics::GetMinimum() const {
    RequireSamples();
    return *std::min_element(_samples.begin(), _samples.end());
}

int Statistics::GetMaximum() const {
    RequireSamples();
    return *std::max_element(_samples.begin(), _samples.end());
}

int Statistics::GetSum() const {
    RequireSamples();
    unsigned int sum = 0;
    for (const int sample : _samples) {
        sum += static_cast<unsigned int>(sample);
    }
    return static_cast<int>(sum);
}

float Statistics::GetMean() const {
    return static_cast<float>(GetSum()) / static_cast<float>(_samples.size());
}

float Statistics::GetVariance() const {
    const float mean = GetMean();
    float squares = 0;
    for (const int sample : _samples) {
        const float difference = static_cast<float>(sample) - mean;
        squares += difference * difference;
    }
    return squares / static_cast<float>(_samples.size());
}

void Statistics::Reset() {
    _samples.clear();
    _lifetimeMin = std::numeric_limits<int>::max();
    _lifetimeMax = std::numeric_limits<int>::min();
    _lifetimeCount = 0;
}

void Statistics::swap(Statistics& other) {
    std::swap(_capacity, other._capacity);
    _samples.swap(other._samples);
    std::swap(_lifetimeMin, other._lifetimeMin);
    std::swap(_lifetimeMax, other._lifetimeMax);
    std::swap(_lifetimeCount, other._lifetimeCount);
}

void Statistics::PrintToStdout(const char* title) const {
    std::printf("+- BEGIN STATISTICS:");
    if (title != nullptr) {
        std::printf(" - %s", title);
    }
    std::printf("\n");
    std::printf("|- LIFETIME\n");
    std::printf("| SIZE: %d\n", static_cast<int>(_lifetimeCount));
    std::printf("| RANGE: [%d, %d]\n", _lifetimeMin, _lifetimeMax);
    std::printf("|- SAMPLE SET\n");
    std::printf("| SIZE: %d\n", static_cast<int>(_samples.size()));
    std::printf("| RANGE: [%d, %d]\n", GetMinimum(), GetMaximum());
    std::printf("| SUM: %d\n", GetSum());
    std::printf("| MEAN: %f\n", static_cast<double>(GetMean()));
    const float variance = GetVariance();
    std::printf("| VARIANCE: %f\n", static_cast<double>(variance));
    std::printf("| STD DEV: %f\n", static_cast<double>(std::sqrt(variance)));
    std::printf("+- END STATISTICS\n");
}

DataStats::DataStats(unsigned int capacity) : Statistics(capacity) {}
DataStats::~DataStats() = default;

BooleanStats::BooleanStats(unsigned int capacity) : Statistics(capacity) {}
BooleanStats::~BooleanStats() = default;

TimeStats::TimeStats(unsigned int capacity) : Statistics(capacity) {}
TimeStats::~TimeStats() = default;

void TimeStats::Trip() {
    unsigned long long microseconds = 0;
    if (TakeLap(_started, _stopwatch, microseconds)) {
        AddData(static_cast<int>(static_cast<unsigned int>(microseconds)));
    }
}

FrequencyStats::FrequencyStats(unsigned int capacity) : Statistics(capacity) {}
FrequencyStats::~FrequencyStats() = default;

void FrequencyStats::Pulse() {
    unsigned long long microseconds = 0;
    if (TakeLap(_started, _stopwatch, microseconds)) {
        AddData(static_cast<int>(kMicrosecondsPerSecond / std::max(microseconds, 1ULL)));
    }
}

}  // namespace zarip::core
