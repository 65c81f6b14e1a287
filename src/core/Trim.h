// SPDX-License-Identifier: MIT

#pragma once

#include <cctype>
#include <string_view>

namespace zarip::core {

inline bool IsSpace(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

inline std::string_view Trim(std::string_view text) {
    std::size_t begin = 0;
    std::size_t end = text.size();
    while (begin < end && IsSpace(text[begin])) {
        ++begin;
    }
    while (end > begin && IsSpace(text[end - 1])) {
        --end;
    }
    return text.substr(begin, end - begin);
}

/// `Trim` of the part before the first zero byte.
inline std::string_view TrimBeforeZero(std::string_view text) {
    return Trim(text.substr(0, text.find('\0')));
}

}  // namespace zarip::core
