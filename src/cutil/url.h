// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>

namespace zarip::cutil {

/// The parts of a URL as zero-terminated strings, or null for an absent part. All of them are in `storage`.
struct url_t {
    char* storage;
    const char* scheme;
    const char* user;
    const char* password;
    const char* host;
    const char* port;
    const char* path;
    const char* query;
};

/// Splits [scheme "://"] [user [":" password] "@"] [host [":" port]] [path] ["?" query] ["#" fragment]; the
/// fragment is dropped. A string without a scheme begins with the host, with '/' or with '?'. Nothing is
/// decoded.
///
/// Null if the string is not a URL, or if memory is short. A string is not a URL if it is empty, has white
/// space or control characters, has '@' or ':' without a user or a host, has a host with brackets or colons
/// in wrong places, or has neither a host nor a path after its scheme. The port may have any other
/// characters. Free the record with `url_free`.
url_t* url_alloc(const char* text);
void url_free(url_t* url);

/// Writes the string and a zero byte. Every byte except letters, digits and "-._~" becomes '%' and two
/// hexadecimal digits. Returns the length without the zero byte, or -1 if `outSize` is too small.
int url_encode(const char* in, std::size_t inLength, char* out, std::size_t outSize);

/// Writes the string and a zero byte. '%' and two hexadecimal digits become the byte; '+' stays, because
/// paths may contain it. `out` may be `in`. Returns the length without the zero byte, or -1 if a '%' lacks
/// its digits or `outSize` is too small.
int url_decode(const char* in, std::size_t inLength, char* out, std::size_t outSize);

/// The values of hexadecimal digits, -1 for all other characters.
struct url_hex_values {
    constexpr url_hex_values() {
        for (int c = 0; c < 256; ++c) {
            const int letter = c | 0x20;
            of[c] = static_cast<short>(c >= '0' && c <= '9'             ? c - '0'
                                       : letter >= 'a' && letter <= 'f' ? letter - 'a' + 10
                                                                        : -1);
        }
    }
    short of[256] = {};
};
inline constexpr url_hex_values kUrlHexValues;

/// The byte that two hexadecimal digits name, or -1 if they are not such digits.
inline int url_byte(char high, char low) {
    const int first = kUrlHexValues.of[static_cast<unsigned char>(high)];
    const int second = kUrlHexValues.of[static_cast<unsigned char>(low)];
    return (first | second) < 0 ? -1 : first * 16 + second;
}

}  // namespace zarip::cutil
