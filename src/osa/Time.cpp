// SPDX-License-Identifier: MIT

#include "zarip/osa/Time.h"

#include <sys/time.h>
#include <time.h>

#include "zarip/osa/Exception.h"
#include "zarip/osa/ITimeSource.h"

namespace zarip::osa {

namespace {

constexpr unsigned long long kMicrosecondsPerSecond = 1'000'000;
constexpr unsigned long long kLatest = 4'294'967'295'999'999;

unsigned long long Total(const TimeStruct& time) {
    return time.seconds * kMicrosecondsPerSecond + time.microseconds;
}

/// The absolute value of a negative number, also of the smallest.
unsigned long long Magnitude(long long negative) {
    return 0 - static_cast<unsigned long long>(negative);
}

void Store(TimeStruct& time, unsigned long long total) {
    time.seconds = static_cast<unsigned int>(total / kMicrosecondsPerSecond);
    time.microseconds = static_cast<unsigned int>(total % kMicrosecondsPerSecond);
}

}  // namespace

TimeStruct::TimeStruct(bool now) : seconds(0), microseconds(0) {
    if (now) {
        Time(*this);
    }
}

TimeStruct::TimeStruct(unsigned int wholeSeconds, unsigned int furtherMicroseconds)
    : seconds(wholeSeconds), microseconds(0) {
    Add(furtherMicroseconds);
}

void TimeStruct::Add(unsigned long long count) {
    const unsigned long long total = Total(*this);
    if (count > kLatest || total + count > kLatest) {
        throw Exception("Invalid parameter");
    }
    Store(*this, total + count);
}

void TimeStruct::Subtract(unsigned long long count) {
    const unsigned long long total = Total(*this);
    if (total < count) {
        throw Exception("Invalid parameter");
    }
    Store(*this, total - count);
}

TimeStruct& TimeStruct::operator+=(long long count) {
    if (count < 0) {
        Subtract(Magnitude(count));
    } else {
        Add(static_cast<unsigned long long>(count));
    }
    return *this;
}

TimeStruct& TimeStruct::operator-=(long long count) {
    if (count < 0) {
        Add(Magnitude(count));
    } else {
        Subtract(static_cast<unsigned long long>(count));
    }
    return *this;
}

TimeStruct& TimeStruct::operator+=(const TimeStruct& other) {
    Add(Total(other));
    return *this;
}

TimeStruct& TimeStruct::operator-=(const TimeStruct& other) {
    Subtract(Total(other));
    return *this;
}

TimeStruct TimeStruct::operator+(const TimeStruct& other) const {
    return TimeStruct(*this) += other;
}

TimeStruct TimeStruct::operator-(const TimeStruct& other) const {
    return TimeStruct(*this) -= other;
}

std::string TimeStruct::ToString() const {
    return {};
}

void Time(TimeStruct& out) {
    timeval now{};
    ::gettimeofday(&now, nullptr);
    out.seconds = static_cast<unsigned int>(now.tv_sec);
    out.microseconds = static_cast<unsigned int>(now.tv_usec);
}

int SetTime(const TimeStruct& value) {
    timeval time{};
    time.tv_sec = static_cast<time_t>(value.seconds);
    time.tv_usec = static_cast<suseconds_t>(value.microseconds);
    return ::settimeofday(&time, nullptr);
}

void TimeMonotonic(TimeStruct& out) {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    auto seconds = static_cast<unsigned int>(now.tv_sec);
    auto microseconds = static_cast<unsigned int>((now.tv_nsec + 500) / 1'000);
    if (microseconds == kMicrosecondsPerSecond) {
        ++seconds;
        microseconds = 0;
    }
    out.seconds = seconds;
    out.microseconds = microseconds;
}

int SetTimeMonotonic(const TimeStruct& value) {
    timespec time{};
    time.tv_sec = static_cast<time_t>(value.seconds);
    time.tv_nsec = static_cast<long>(value.microseconds) * 1'000;
    return ::clock_settime(CLOCK_MONOTONIC, &time);
}

SystemTimeSource::~SystemTimeSource() = default;
void SystemTimeSource::GetTime(TimeStruct& out) const {
    out = TimeStruct(true);
}
void SystemTimeSource::SetTime(const TimeStruct& value) {
    osa::SetTime(value);
}

MonotonicTimeSource::~MonotonicTimeSource() = default;
void MonotonicTimeSource::GetTime(TimeStruct& out) const {
    TimeMonotonic(out);
}
void MonotonicTimeSource::SetTime(const TimeStruct& value) {
    SetTimeMonotonic(value);
}

}  // namespace zarip::osa
