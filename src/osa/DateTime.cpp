// SPDX-License-Identifier: MIT

#include "zarip/osa/DateTime.h"

#include <time.h>

#include <cstdio>

#include "zarip/osa/Exception.h"

namespace zarip::osa {

namespace {

constexpr long long kSecond = 1'000'000;
constexpr long long kDay = 86'400 * kSecond;
constexpr int kMonthDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

constexpr bool IsLeap(int year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

int DaysOf(int year, int month) {
    return kMonthDays[month - 1] + (month == 2 && IsLeap(year) ? 1 : 0);
}

/// Days from 1970-01-01 to the first day of a year.
constexpr long long DaysBefore(int year) {
    const long long whole = year - 1;
    return whole * 365 + whole / 4 - whole / 100 + whole / 400 - 719'162;
}

constexpr long long kEarliest = DaysBefore(1) * kDay;
constexpr long long kLatest = DaysBefore(10'000) * kDay - 1;

long long FloorDivide(long long value, long long divisor) {
    return value / divisor - (value % divisor < 0 ? 1 : 0);
}

/// Reads decimal digits of a string from the left.
class Scanner {
public:
    explicit Scanner(const std::string& text) : _text(text) {}

    bool Number(int digits, int& value) {
        value = 0;
        for (int i = 0; i < digits; ++i) {
            if (!IsDigit()) {
                return false;
            }
            value = value * 10 + (_text[_at++] - '0');
        }
        return true;
    }

    bool Sign(char sign) {
        const bool found = _at < _text.size() && _text[_at] == sign;
        _at += found ? 1 : 0;
        return found;
    }

    /// Reads the decimals of a second, in microseconds.
    bool Fraction(int& microseconds) {
        microseconds = 0;
        int digits = 0;
        for (; IsDigit() && digits < 6; ++digits) {
            microseconds = microseconds * 10 + (_text[_at++] - '0');
        }
        for (int i = digits; i < 6; ++i) {
            microseconds *= 10;
        }
        return digits > 0;
    }

    bool IsAtEnd() const { return _at == _text.size(); }

private:
    bool IsDigit() const { return _at < _text.size() && _text[_at] >= '0' && _text[_at] <= '9'; }

    const std::string& _text;
    std::size_t _at = 0;
};

/// Minutes east of UTC.
bool ScanZone(Scanner& scanner, int& minutes) {
    minutes = 0;
    if (scanner.Sign('Z')) {
        return true;
    }
    const bool isEast = scanner.Sign('+');
    int hour = 0;
    int minute = 0;
    if ((!isEast && !scanner.Sign('-')) || !scanner.Number(2, hour) || !scanner.Sign(':') ||
        !scanner.Number(2, minute) || hour > 23 || minute > 59) {
        return false;
    }
    minutes = (hour * 60 + minute) * (isEast ? 1 : -1);
    return true;
}

std::string Format(const DateTime::Fields& fields) {
    char text[64];
    std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d", fields.year, fields.month, fields.day,
                  fields.hour, fields.minute, fields.second);
    std::string result = text;
    if (fields.microsecond != 0) {
        std::snprintf(text, sizeof(text), ".%06d", fields.microsecond);
        result += text;
    }
    return result;
}

DateTime::Fields FieldsOf(long long microseconds) {
    DateTime::Fields fields;
    const long long day = FloorDivide(microseconds, kDay);
    const long long rest = microseconds - day * kDay;
    // A guess by the mean length of a year, which is wrong by at most one.
    fields.year = static_cast<int>(FloorDivide(day * 400, 146'097)) + 1970;
    while (DaysBefore(fields.year) > day) {
        --fields.year;
    }
    while (DaysBefore(fields.year + 1) <= day) {
        ++fields.year;
    }
    int left = static_cast<int>(day - DaysBefore(fields.year));
    fields.dayOfYear = left + 1;
    while (left >= DaysOf(fields.year, fields.month)) {
        left -= DaysOf(fields.year, fields.month++);
    }
    fields.day = left + 1;
    fields.dayOfWeek = static_cast<int>((day % 7 + 11) % 7);
    const auto seconds = static_cast<int>(rest / kSecond);
    fields.hour = seconds / 3600;
    fields.minute = seconds / 60 % 60;
    fields.second = seconds % 60;
    fields.microsecond = static_cast<int>(rest % kSecond);
    return fields;
}

}  // namespace

DateTime::DateTime(int year, int month, int day, int hour, int minute, int second, int microsecond) {
    const bool exists = year >= 1 && year <= 9999 && month >= 1 && month <= 12 && day >= 1 &&
                        day <= DaysOf(year, month) && hour >= 0 && hour <= 23 && minute >= 0 &&
                        minute <= 59 && second >= 0 && second <= 59 && microsecond >= 0 &&
                        microsecond < kSecond;
    if (!exists) {
        throw Exception("Invalid date");
    }
    long long days = DaysBefore(year) + day - 1;
    for (int before = 1; before < month; ++before) {
        days += DaysOf(year, before);
    }
    _microseconds = days * kDay + ((hour * 60LL + minute) * 60 + second) * kSecond + microsecond;
}

DateTime::DateTime(const TimeStruct& time) : _microseconds(time.seconds * kSecond + time.microseconds) {}

DateTime DateTime::Now() {
    return DateTime(TimeStruct(true));
}

DateTime DateTime::FromMicroseconds(long long microseconds) {
    if (microseconds < kEarliest || microseconds > kLatest) {
        throw Exception("Invalid date");
    }
    DateTime result;
    result._microseconds = microseconds;
    return result;
}

DateTime DateTime::Parse(const std::string& text) {
    Scanner scanner(text);
    Fields fields;
    int zone = 0;
    const bool isWellFormed =
        scanner.Number(4, fields.year) && scanner.Sign('-') && scanner.Number(2, fields.month) &&
        scanner.Sign('-') && scanner.Number(2, fields.day) && scanner.Sign('T') &&
        scanner.Number(2, fields.hour) && scanner.Sign(':') && scanner.Number(2, fields.minute) &&
        scanner.Sign(':') && scanner.Number(2, fields.second) &&
        (!scanner.Sign('.') || scanner.Fraction(fields.microsecond)) && ScanZone(scanner, zone) &&
        scanner.IsAtEnd();
    if (isWellFormed) {
        try {
            return DateTime(fields.year, fields.month, fields.day, fields.hour, fields.minute, fields.second,
                            fields.microsecond) -
                   TimeSpan::FromMinutes(zone);
        } catch (const Exception&) {
            // There is no such date. The caller throws the exception of `Parse`.
        }
    }
    throw Exception("Invalid date text '" + text + "'");
}

TimeStruct DateTime::ToTimeStruct() const {
    TimeStruct time;
    time += _microseconds;
    return time;
}

std::string DateTime::ToString() const {
    return Format(GetFields()) + "Z";
}

std::string DateTime::ToLocalString() const {
    const Fields fields = GetLocalFields();
    const int offset = fields.offsetMinutes < 0 ? -fields.offsetMinutes : fields.offsetMinutes;
    char zone[16];
    std::snprintf(zone, sizeof(zone), "%c%02d:%02d", fields.offsetMinutes < 0 ? '-' : '+', offset / 60 % 100,
                  offset % 60);
    return Format(fields) + zone;
}

DateTime::Fields DateTime::GetFields() const {
    return FieldsOf(_microseconds);
}

DateTime::Fields DateTime::GetLocalFields() const {
    const auto seconds = static_cast<time_t>(FloorDivide(_microseconds, kSecond));
    tm local{};
    ::tzset();  // localtime_r alone would keep the zone that it has seen first
    if (::localtime_r(&seconds, &local) == nullptr) {
        throw Exception("Invalid date");
    }
    const long offset = local.tm_gmtoff / 60;
    Fields fields = FieldsOf(_microseconds + offset * 60 * kSecond);
    fields.offsetMinutes = static_cast<int>(offset);
    return fields;
}

DateTime DateTime::operator+(TimeSpan span) const {
    long long sum = 0;
    if (__builtin_add_overflow(_microseconds, span.GetTotalMicroseconds(), &sum)) {
        throw Exception("Invalid date");
    }
    return FromMicroseconds(sum);
}

DateTime DateTime::operator-(TimeSpan span) const {
    long long difference = 0;
    if (__builtin_sub_overflow(_microseconds, span.GetTotalMicroseconds(), &difference)) {
        throw Exception("Invalid date");
    }
    return FromMicroseconds(difference);
}

TimeSpan DateTime::operator-(const DateTime& other) const {
    return TimeSpan::FromMicroseconds(_microseconds - other._microseconds);
}

}  // namespace zarip::osa
