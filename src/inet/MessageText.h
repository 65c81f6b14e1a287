// SPDX-License-Identifier: MIT

#pragma once

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace zarip::inet {

/// Converts ASCII letters only, because the protocol does not depend on the locale of the process.
constexpr unsigned char ToLowerAscii(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return static_cast<unsigned char>(byte - 'A') < 26 ? static_cast<unsigned char>(byte | 0x20U) : byte;
}

constexpr bool IsControl(char c) {
    return static_cast<unsigned char>(c) < ' ' || c == '\x7F';
}

constexpr bool EqualsIgnoringCase(std::string_view left, std::string_view right) {
    if (left.size() != right.size()) {
        return false;
    }
    for (std::size_t i = 0; i < left.size(); ++i) {
        if (ToLowerAscii(left[i]) != ToLowerAscii(right[i])) {
            return false;
        }
    }
    return true;
}

/// Returns whether the text contains a carriage return, a line feed or a zero byte.
inline bool HoldsLineEndOrZero(std::string_view text) {
    // Most texts contain no character up to the carriage return. Eight characters at a time are tested for
    // that.
    constexpr std::uint64_t kOnes = 0x0101010101010101;
    const char* next = text.data();
    const char* const end = next + text.size();
    bool isLow = false;
    for (; end - next >= 8 && !isLow; next += 8) {
        std::uint64_t eight = 0;
        std::memcpy(&eight, next, sizeof(eight));
        isLow = ((eight - kOnes * ('\r' + 1)) & ~eight & kOnes * 0x80) != 0;
    }
    for (; next != end && !isLow; ++next) {
        isLow = static_cast<unsigned char>(*next) <= '\r';
    }
    return isLow && text.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

/// Does the same as `StringUtil::ToUpper`, but is faster for short strings.
inline void ToUpper(std::string& text) {
    unsigned char all = 0;
    for (char& c : text) {
        const auto byte = static_cast<unsigned char>(c);
        const auto isLower = static_cast<unsigned char>(static_cast<unsigned char>(byte - 'a') < 26);
        all = static_cast<unsigned char>(all | byte);
        c = static_cast<char>(byte - isLower * 0x20);
    }
    if (all >= 0x80) {  // letters of the process's locale
        for (char& c : text) {
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        }
    }
}

}  // namespace zarip::inet
