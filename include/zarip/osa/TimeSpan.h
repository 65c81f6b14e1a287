#pragma once

namespace zarip::osa {

/// A signed length of time in microseconds. Immutable but for assignment, so *thread-safe* as far as a number
/// is.
class TimeSpan {
public:
    constexpr TimeSpan() = default;

    static constexpr TimeSpan FromMicroseconds(long long count) { return TimeSpan(count); }
    static constexpr TimeSpan FromMilliseconds(long long count) { return TimeSpan(count * 1'000); }
    static constexpr TimeSpan FromSeconds(long long count) { return TimeSpan(count * 1'000'000); }
    static constexpr TimeSpan FromMinutes(long long count) { return FromSeconds(count * 60); }
    static constexpr TimeSpan FromHours(long long count) { return FromMinutes(count * 60); }
    static constexpr TimeSpan FromDays(long long count) { return FromHours(count * 24); }

    /// Fractions are cut off, towards zero.
    constexpr long long GetTotalMicroseconds() const { return _microseconds; }
    constexpr long long GetTotalMilliseconds() const { return _microseconds / 1'000; }
    constexpr long long GetTotalSeconds() const { return _microseconds / 1'000'000; }

    friend constexpr TimeSpan operator+(TimeSpan a, TimeSpan b) {
        return TimeSpan(a._microseconds + b._microseconds);
    }
    friend constexpr TimeSpan operator-(TimeSpan a, TimeSpan b) {
        return TimeSpan(a._microseconds - b._microseconds);
    }
    constexpr TimeSpan operator-() const { return TimeSpan(-_microseconds); }

    friend constexpr bool operator==(TimeSpan a, TimeSpan b) { return a._microseconds == b._microseconds; }
    friend constexpr bool operator!=(TimeSpan a, TimeSpan b) { return a._microseconds != b._microseconds; }
    friend constexpr bool operator<(TimeSpan a, TimeSpan b) { return a._microseconds < b._microseconds; }
    friend constexpr bool operator<=(TimeSpan a, TimeSpan b) { return a._microseconds <= b._microseconds; }
    friend constexpr bool operator>(TimeSpan a, TimeSpan b) { return a._microseconds > b._microseconds; }
    friend constexpr bool operator>=(TimeSpan a, TimeSpan b) { return a._microseconds >= b._microseconds; }

private:
    explicit constexpr TimeSpan(long long microseconds) : _microseconds(microseconds) {}

    long long _microseconds = 0;
};

}  // namespace zarip::osa
