// SPDX-License-Identifier: MIT

#include "cutil/utf8.h"

#include <cstddef>

namespace zarip::cutil {

unsigned int utf8_take(std::string_view& text) {
    const auto first = static_cast<unsigned char>(text[0]);
    const std::size_t size = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if ((first >= 0x80 && first < 0xC2) || first > 0xF4 || size > text.size()) {
        return kNoCharacter;
    }
    unsigned int code = size == 1 ? first : first & (0x7FU >> size);
    for (std::size_t i = 1; i < size; ++i) {
        const auto next = static_cast<unsigned char>(text[i]);
        if ((next & 0xC0U) != 0x80) {
            return kNoCharacter;
        }
        code = code << 6U | (next & 0x3FU);
    }
    if ((size == 3 && code < 0x800) || (size == 4 && (code < 0x10000 || code > 0x10FFFF)) ||
        (code >= 0xD800 && code <= 0xDFFF)) {
        return kNoCharacter;
    }
    text.remove_prefix(size);
    return code;
}

}  // namespace zarip::cutil
