// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/crypto/CryptoException.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/ErrorOf.h"

namespace zarip::crypto {

using Bytes = std::vector<unsigned char>;

/// Returns the message of the `CryptoException` that an action throws, or "no exception".
template <class Action>
std::string CryptoErrorOf(Action action) {
    return test::ErrorOf<CryptoException>(action);
}

/// Converts hexadecimal digits, between which there may be spaces.
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

/// Calls `check(columns, line)` for each row of a table in the folder `vectors`. A column "-" is empty, and
/// '#' begins a comment. Returns the number of rows.
template <class Check>
int ForEachRow(const std::string& table, Check check) {
    std::ifstream file(ZARIP_CRYPTO_VECTORS "/" + table);
    int rows = 0;
    for (std::string line; std::getline(file, line);) {
        std::istringstream stream(line.substr(0, line.find('#')));
        std::vector<std::string> columns;
        for (std::string column; stream >> column;) {
            columns.push_back(column == "-" ? "" : column);
        }
        if (!columns.empty()) {
            check(columns, line);
            ++rows;
        }
    }
    return rows;
}

}  // namespace zarip::crypto
