#pragma once

#include <cstddef>
#include <string_view>

namespace zarip::inet {

/// Letters of the ASCII set only, whatever the process's locale: what goes over the wire has none.
constexpr unsigned char ToLowerAscii(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return static_cast<unsigned char>(byte - 'A') < 26 ? static_cast<unsigned char>(byte | 0x20U) : byte;
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

}  // namespace zarip::inet
