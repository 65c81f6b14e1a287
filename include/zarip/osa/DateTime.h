// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Export.h>
#include <zarip/osa/TimeSpan.h>
#include <zarip/osa/TimeStruct.h>

namespace zarip::osa {

/// A date and time in UTC, in microseconds, from year 1 to 9999, without leap seconds. *Thread-safe*, except
/// for assignment.
///
/// If a date does not exist, or a result is outside of those years, the functions throw `Exception` "Invalid
/// date".
class ZARIP_EXPORT DateTime {
public:
    struct Fields {
        int year = 1970;
        int month = 1;  ///< 1 to 12
        int day = 1;    ///< 1 to 31
        int hour = 0;
        int minute = 0;
        int second = 0;
        int microsecond = 0;
        int dayOfWeek = 4;      ///< 0 is Sunday; not used when a DateTime is made
        int dayOfYear = 1;      ///< 1 to 366; not used either
        int offsetMinutes = 0;  ///< local time minus UTC; 0 for UTC
    };

    /// Makes 1970-01-01T00:00:00Z.
    DateTime() = default;

    DateTime(int year, int month, int day, int hour = 0, int minute = 0, int second = 0, int microsecond = 0);

    /// Converts a time of the real-time clock, which counts from 1970.
    explicit DateTime(const TimeStruct& time);

    static DateTime Now();

    /// Reads "2026-11-21T20:10:07Z", "2026-11-21T21:10:07.25+01:00": ISO 8601 with a zone and up to six
    /// decimals of a second. Throws `Exception` "Invalid date text '<text>'".
    static DateTime Parse(const std::string& text);

    /// Converts to a time of the real-time clock. Throws `Exception` "Invalid parameter" before 1970 and
    /// after 2106.
    TimeStruct ToTimeStruct() const;

    /// Returns the form that `Parse` reads, in UTC. It has six decimals if the time has a fraction of a
    /// second.
    std::string ToString() const;

    /// Returns the same form in the time zone of the process (TZ), with the offset of that zone.
    std::string ToLocalString() const;

    Fields GetFields() const;
    Fields GetLocalFields() const;

    DateTime operator+(TimeSpan span) const;
    DateTime operator-(TimeSpan span) const;
    TimeSpan operator-(const DateTime& other) const;

    friend bool operator==(const DateTime& a, const DateTime& b) {
        return a._microseconds == b._microseconds;
    }
    friend bool operator!=(const DateTime& a, const DateTime& b) {
        return a._microseconds != b._microseconds;
    }
    friend bool operator<(const DateTime& a, const DateTime& b) { return a._microseconds < b._microseconds; }
    friend bool operator<=(const DateTime& a, const DateTime& b) {
        return a._microseconds <= b._microseconds;
    }
    friend bool operator>(const DateTime& a, const DateTime& b) { return a._microseconds > b._microseconds; }
    friend bool operator>=(const DateTime& a, const DateTime& b) {
        return a._microseconds >= b._microseconds;
    }

private:
    static DateTime FromMicroseconds(long long microseconds);

    long long _microseconds = 0;  // since 1970-01-01T00:00:00Z
};

}  // namespace zarip::osa
