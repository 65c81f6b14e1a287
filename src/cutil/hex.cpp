// SPDX-License-Identifier: MIT

#include "cutil/hex.h"

namespace zarip::cutil {

std::string bin2hex(const unsigned char* bytes, std::size_t length) {
    static const char digits[] = "0123456789abcdef";
    std::string text(2 * length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        text[2 * i] = digits[bytes[i] >> 4U];
        text[2 * i + 1] = digits[bytes[i] & 0x0FU];
    }
    return text;
}

}  // namespace zarip::cutil
