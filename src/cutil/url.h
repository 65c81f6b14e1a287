// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>

namespace zarip::cutil {

/// The parts of a URL as zero-terminated texts, null when absent; all of them live in `storage`.
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
/// fragment is dropped. A text without a scheme begins with the host, with '/' or with '?'. Nothing is
/// decoded.
///
/// Null when the text is no URL, or memory is short: it is empty, holds white space or control characters,
/// has
/// '@' or ':' but no user or host there, a host with brackets or colons in wrong places, or no host and no
/// path behind its scheme. The port may hold any other characters. Free the record with `url_free`.
url_t* url_alloc(const char* text);
void url_free(url_t* url);

/// Writes the text with every byte but letters, digits and "-._~" as '%' and two hexadecimal digits, and a
/// zero byte. Returns the length without that, or -1 when `outSize` is too small.
int url_encode(const char* in, std::size_t inLength, char* out, std::size_t outSize);

/// Writes the text with '%' and two hexadecimal digits as that byte, and a zero byte; '+' stays, since paths
/// hold it. `out` may be `in`. Returns the length without that, or -1 when a '%' lacks its digits or
/// `outSize` is too small.
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

/// The byte that two hexadecimal digits stand for, -1 when they are none.
inline int url_byte(char high, char low) {
    const int first = kUrlHexValues.of[static_cast<unsigned char>(high)];
    const int second = kUrlHexValues.of[static_cast<unsigned char>(low)];
    return (first | second) < 0 ? -1 : first * 16 + second;
}

}  // namespace zarip::cutil
