// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

/// Checks printf formats when a program is compiled, for compilers that check them only in calls of functions
/// with an ellipsis.
namespace zarip::core::internal {

enum class FormatArgument {
    kInt,
    kLong,
    kLongLong,
    kDouble,
    kLongDouble,
    kText,
    kWideText,
    kPointer,
    kOther,
    kNone
};

/// Returns the kind of an argument of type T after the promotions of an ellipsis.
template <class T>
constexpr FormatArgument ClassifyArgument() {
    if constexpr (std::is_same_v<T, long double>) {
        return FormatArgument::kLongDouble;
    } else if constexpr (std::is_floating_point_v<T>) {
        return FormatArgument::kDouble;
    } else if constexpr (std::is_integral_v<T> || (std::is_enum_v<T> && std::is_convertible_v<T, int>)) {
        using Promoted = std::make_signed_t<decltype(+T{})>;
        return std::is_same_v<Promoted, int>    ? FormatArgument::kInt
               : std::is_same_v<Promoted, long> ? FormatArgument::kLong
                                                : FormatArgument::kLongLong;
    } else if constexpr (std::is_pointer_v<T>) {
        using Target = std::remove_cv_t<std::remove_pointer_t<T>>;
        if constexpr (std::is_same_v<Target, char> || std::is_same_v<Target, signed char> ||
                      std::is_same_v<Target, unsigned char>) {
            return FormatArgument::kText;
        } else if constexpr (std::is_same_v<Target, wchar_t>) {
            return FormatArgument::kWideText;
        } else {
            return std::is_function_v<Target> ? FormatArgument::kOther : FormatArgument::kPointer;
        }
    } else {
        return std::is_null_pointer_v<T> ? FormatArgument::kPointer : FormatArgument::kOther;
    }
}

constexpr bool IsOneOf(char c, const char* list) {
    for (; *list != '\0'; ++list) {
        if (c == *list) {
            return true;
        }
    }
    return false;
}

/// Returns the kind of argument that a conversion takes, or kNone for a combination that does not exist.
/// `length` is the length modifier; 'H' means hh and 'Q' means ll.
constexpr FormatArgument ArgumentOf(char length, char conversion) {
    if (IsOneOf(conversion, "diouxX")) {
        switch (length) {
            case '\0':
            case 'h':
            case 'H':
                return FormatArgument::kInt;
            case 'l':
                return FormatArgument::kLong;
            case 'Q':
                return FormatArgument::kLongLong;
            case 'j':
                return ClassifyArgument<std::intmax_t>();
            case 'z':
                return ClassifyArgument<std::size_t>();
            case 't':
                return ClassifyArgument<std::ptrdiff_t>();
            default:
                return FormatArgument::kNone;
        }
    }
    if (IsOneOf(conversion, "fFeEgGaA")) {
        return length == 'L'                     ? FormatArgument::kLongDouble
               : length == '\0' || length == 'l' ? FormatArgument::kDouble
                                                 : FormatArgument::kNone;
    }
    if (conversion == 's' && (length == '\0' || length == 'l')) {
        return length == 'l' ? FormatArgument::kWideText : FormatArgument::kText;
    }
    if (conversion == 'c' && (length == '\0' || length == 'l')) {
        return FormatArgument::kInt;
    }
    return conversion == 'p' && length == '\0' ? FormatArgument::kPointer : FormatArgument::kNone;
}

/// Skips a width or a precision. Returns false for a `*` whose argument is not an int.
constexpr bool SkipNumber(const char*& format, const FormatArgument*& next) {
    if (*format == '*') {
        ++format;
        return *next++ == FormatArgument::kInt;
    }
    while (*format >= '0' && *format <= '9') {
        ++format;
    }
    return true;
}

/// Skips a length modifier and returns it as `ArgumentOf` takes it.
constexpr char SkipLength(const char*& format) {
    if (*format == '\0' || !IsOneOf(*format, "hljztL")) {
        return '\0';
    }
    const char length = *format++;
    if (length != *format || (length != 'h' && length != 'l')) {
        return length;
    }
    ++format;
    return length == 'h' ? 'H' : 'Q';
}

/// Returns whether printf may be called with this format and arguments of these types. Positional arguments
/// ("%1$s") and "%n" are refused.
template <class... Arguments>
constexpr bool FormatMatches(const char* format) {
    constexpr FormatArgument kArguments[] = {ClassifyArgument<Arguments>()..., FormatArgument::kNone};
    const FormatArgument* next = kArguments;
    while (*format != '\0') {
        if (*format++ != '%') {
            continue;
        }
        while (*format != '\0' && IsOneOf(*format, "-+ #0'")) {
            ++format;
        }
        if (!SkipNumber(format, next) || (*format == '.' && !SkipNumber(++format, next))) {
            return false;
        }
        const char length = SkipLength(format);
        const char conversion = *format;
        if (conversion == '\0') {
            return false;
        }
        ++format;
        if ((conversion == '%' || conversion == 'm') && length == '\0') {
            continue;  // "%m" is the text of errno
        }
        const FormatArgument wanted = ArgumentOf(length, conversion);
        const FormatArgument given = *next;
        if (wanted == FormatArgument::kNone || given == FormatArgument::kNone) {
            return false;
        }
        const bool anyPointer = wanted == FormatArgument::kPointer &&
                                (given == FormatArgument::kText || given == FormatArgument::kWideText);
        if (given != wanted && !anyPointer) {
            return false;
        }
        ++next;
    }
    return *next == FormatArgument::kNone;
}

}  // namespace zarip::core::internal
