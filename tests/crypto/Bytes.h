// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/crypto/CryptoException.h>

#include <cstdio>
#include <string>
#include <vector>

namespace zarip::crypto {

using Bytes = std::vector<unsigned char>;

template <class Action>
std::string CryptoErrorOf(Action action) {
    try {
        action();
    } catch (const CryptoException& e) {
        return e.what();
    }
    return "no exception";
}

/// Of hexadecimal digits, with blanks in between.
inline Bytes FromHex(const std::string& hex) {
    Bytes bytes;
    std::string digits;
    for (const char c : hex) {
        if (c == ' ') {
            continue;
        }
        digits += c;
        if (digits.size() == 2) {
            bytes.push_back(static_cast<unsigned char>(std::stoul(digits, nullptr, 16)));
            digits.clear();
        }
    }
    return bytes;
}

inline std::string ToHex(const unsigned char* data, std::size_t length) {
    std::string text;
    for (std::size_t i = 0; i < length; ++i) {
        char byte[3];
        std::snprintf(byte, sizeof byte, "%02x", data[i]);
        text += byte;
    }
    return text;
}

inline std::string ToHex(const Bytes& bytes) {
    return ToHex(bytes.data(), bytes.size());
}

inline unsigned int SizeOf(const Bytes& bytes) {
    return static_cast<unsigned int>(bytes.size());
}

inline Bytes ToBytes(const std::string& text) {
    return {text.begin(), text.end()};
}

inline std::string ToText(const Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

}  // namespace zarip::crypto
