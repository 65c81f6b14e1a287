// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Export.h>

namespace zarip::osa {

/// A time in whole seconds and microseconds, from 0 to 4,294,967,295 s 999,999 us. *One thread at a time.*
///
/// A result outside that range throws `Exception` "Invalid parameter" and leaves the value as it was.
class ZARIP_EXPORT TimeStruct {
public:
    /// Makes the time 0 or, if `now` is true, the present time of the real-time clock.
    explicit TimeStruct(bool now = false);

    /// Makes a time. Each million of microseconds becomes a second.
    TimeStruct(unsigned int seconds, unsigned int microseconds);

    TimeStruct& operator+=(long long microseconds);
    TimeStruct& operator-=(long long microseconds);
    TimeStruct& operator+=(const TimeStruct& other);
    TimeStruct& operator-=(const TimeStruct& other);
    TimeStruct operator+(const TimeStruct& other) const;
    TimeStruct operator-(const TimeStruct& other) const;

    /// Deliberate: returns an empty string. Callers that need a string format the fields in the notation of
    /// their own files and messages.
    std::string ToString() const;

    unsigned int seconds;
    unsigned int microseconds;  ///< below 1,000,000

private:
    void Add(unsigned long long microseconds);
    void Subtract(unsigned long long microseconds);
};

inline bool operator==(const TimeStruct& a, const TimeStruct& b) {
    return a.seconds == b.seconds && a.microseconds == b.microseconds;
}
inline bool operator<(const TimeStruct& a, const TimeStruct& b) {
    return a.seconds != b.seconds ? a.seconds < b.seconds : a.microseconds < b.microseconds;
}
inline bool operator!=(const TimeStruct& a, const TimeStruct& b) {
    return !(a == b);
}
inline bool operator>(const TimeStruct& a, const TimeStruct& b) {
    return b < a;
}
inline bool operator<=(const TimeStruct& a, const TimeStruct& b) {
    return !(b < a);
}
inline bool operator>=(const TimeStruct& a, const TimeStruct& b) {
    return !(a < b);
}

}  // namespace zarip::osa
