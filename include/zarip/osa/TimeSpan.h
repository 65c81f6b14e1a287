// SPDX-License-Identifier: MIT

#pragma once

#include <limits>

namespace zarip::osa {

/// A signed length of time in microseconds. It is as *thread-safe* as a number. A result beyond the range of
/// the type, which is 292,000 years, becomes the nearest limit.
class TimeSpan {
public:
    constexpr TimeSpan() = default;

    static constexpr TimeSpan FromMicroseconds(long long count) { return TimeSpan(count); }
    static constexpr TimeSpan FromMilliseconds(long long count) { return TimeSpan(Multiply(count, 1'000)); }
    static constexpr TimeSpan FromSeconds(long long count) { return TimeSpan(Multiply(count, 1'000'000)); }
    static constexpr TimeSpan FromMinutes(long long count) { return FromSeconds(Multiply(count, 60)); }
    static constexpr TimeSpan FromHours(long long count) { return FromMinutes(Multiply(count, 60)); }
    static constexpr TimeSpan FromDays(long long count) { return FromHours(Multiply(count, 24)); }

    /// These functions cut off fractions, towards zero.
    constexpr long long GetTotalMicroseconds() const { return _microseconds; }
    constexpr long long GetTotalMilliseconds() const { return _microseconds / 1'000; }
    constexpr long long GetTotalSeconds() const { return _microseconds / 1'000'000; }

    friend constexpr TimeSpan operator+(TimeSpan a, TimeSpan b) {
        long long sum = 0;
        return TimeSpan(__builtin_add_overflow(a._microseconds, b._microseconds, &sum)
                            ? Limit(a._microseconds < 0)
                            : sum);
    }
    friend constexpr TimeSpan operator-(TimeSpan a, TimeSpan b) {
        long long difference = 0;
        return TimeSpan(__builtin_sub_overflow(a._microseconds, b._microseconds, &difference)
                            ? Limit(a._microseconds < 0)
                            : difference);
    }
    constexpr TimeSpan operator-() const { return TimeSpan() - *this; }

    friend constexpr bool operator==(TimeSpan a, TimeSpan b) { return a._microseconds == b._microseconds; }
    friend constexpr bool operator!=(TimeSpan a, TimeSpan b) { return a._microseconds != b._microseconds; }
    friend constexpr bool operator<(TimeSpan a, TimeSpan b) { return a._microseconds < b._microseconds; }
    friend constexpr bool operator<=(TimeSpan a, TimeSpan b) { return a._microseconds <= b._microseconds; }
    friend constexpr bool operator>(TimeSpan a, TimeSpan b) { return a._microseconds > b._microseconds; }
    friend constexpr bool operator>=(TimeSpan a, TimeSpan b) { return a._microseconds >= b._microseconds; }

private:
    explicit constexpr TimeSpan(long long microseconds) : _microseconds(microseconds) {}

    static constexpr long long Limit(bool isNegative) {
        return isNegative ? std::numeric_limits<long long>::min() : std::numeric_limits<long long>::max();
    }
    static constexpr long long Multiply(long long count, long long factor) {
        const bool fits = count <= Limit(false) / factor && count >= Limit(true) / factor;
        return fits ? count * factor : Limit(count < 0);
    }

    long long _microseconds = 0;
};

}  // namespace zarip::osa
