// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Export.h>
#include <zarip/osa/TimeSpan.h>
#include <zarip/osa/TimeStruct.h>

namespace zarip::osa {

/// A time of the calendar in UTC, to the microsecond, from year 1 to 9999. Immutable but for assignment. No
/// leap seconds.
///
/// A date that does not exist throws `Exception` "Invalid date", as does arithmetic that leaves those years.
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
        int dayOfWeek = 4;      ///< 0 is Sunday; looked at by nobody who makes a DateTime
        int dayOfYear = 1;      ///< 1 to 366; the same
        int offsetMinutes = 0;  ///< of local time, east of UTC
    };

    /// 1970-01-01T00:00:00Z.
    DateTime() = default;

    DateTime(int year, int month, int day, int hour = 0, int minute = 0, int second = 0, int microsecond = 0);

    /// The time since 1970 that the system's clock tells.
    explicit DateTime(const TimeStruct& time);

    static DateTime Now();

    /// Reads "2026-11-21T20:10:07Z", "2026-11-21T21:10:07.25+01:00": ISO 8601 with a zone and up to six
    /// decimals of a second. Throws `Exception` "Invalid date text '<text>'".
    static DateTime Parse(const std::string& text);

    /// Throws "Invalid parameter" before 1970 and after 2106.
    TimeStruct ToTimeStruct() const;

    /// As `Parse` reads it, in UTC; with six decimals where there is a fraction of a second.
    std::string ToString() const;

    /// The same time as clocks show it where the process runs (TZ), with its zone.
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
