// SPDX-License-Identifier: MIT

#include <zarip/crypto/AuthenticatedCipher.h>
#include <zarip/crypto/CryptoUtils.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "Bytes.h"

namespace zarip::crypto {
namespace {

const struct {
    AuthenticatedCipher::Algorithm algorithm;
    const char* table;
} kAlgorithms[] = {
    {AuthenticatedCipher::kAES256GCM, "aes-256-gcm.txt"},
    {AuthenticatedCipher::kChaCha20Poly1305, "chacha20-poly1305.txt"},
};

std::string ToText(const SecureBuffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.GetData()), buffer.GetSize()};
}

TEST(AuthenticatedCipherTest, TheTablesOpenOrDoNot) {
    for (const auto& [algorithm, table] : kAlgorithms) {
        std::ifstream file(std::string(ZARIP_CRYPTO_VECTORS "/") + table);
        int rows = 0;
        for (std::string line; std::getline(file, line);) {
            if (line[0] == '#') {
                continue;
            }
            std::istringstream stream(line);
            std::string result;
            std::string columns[6];  // key, nonce, associated data, message, encrypted message, tag
            stream >> result;
            for (std::string& column : columns) {
                stream >> column;
                column = column == "-" ? "" : crypto::ToText(FromHex(column));
            }
            const std::string& key = columns[0];
            const std::string& message = columns[3];
            const AuthenticatedCipher cipher(algorithm,
                                             SecureBuffer(key.data(), static_cast<unsigned int>(key.size())));
            std::string opened = "nothing";
            const std::string error = CryptoErrorOf(
                [&] { opened = ToText(cipher.Open(columns[1] + columns[4] + columns[5], columns[2])); });
            EXPECT_EQ(error, result == "valid" ? "no exception" : "authentication failed") << line;
            EXPECT_EQ(opened, result == "valid" ? message : "nothing") << line;
            ++rows;
        }
        EXPECT_GT(rows, 50) << table;
    }
}

TEST(AuthenticatedCipherTest, WhatIsSealedOpensOnlyUnchanged) {
    const SecureBuffer key = CryptoUtils::GenerateKey(AuthenticatedCipher::kKeySize);
    for (const auto& row : kAlgorithms) {
        const AuthenticatedCipher cipher(row.algorithm, key);
        const AuthenticatedCipher again(row.algorithm, key);
        for (const std::size_t length : {0U, 1U, 16U, 100U, 100'000U}) {
            const std::string message(length, 'm');
            const std::string sealed = cipher.Seal(message, "settings");
            EXPECT_EQ(sealed.size(), length + AuthenticatedCipher::kOverhead);
            EXPECT_EQ(ToText(again.Open(sealed, "settings")), message);
            EXPECT_NE(cipher.Seal(message, "settings"), sealed) << "a nonce of its own";
            const Bytes bytes = ToBytes(message);
            const unsigned char associated[] = {'a'};
            const Bytes sealedBytes = cipher.Seal(bytes.data(), SizeOf(bytes), associated, 1);
            EXPECT_EQ(ToText(cipher.Open(crypto::ToText(sealedBytes), "a")), message);
            EXPECT_EQ(ToText(cipher.Open(sealedBytes.data(), SizeOf(sealedBytes), associated, 1)), message);
        }
        const std::string sealed = cipher.Seal(SecureBuffer("secret", 6));
        for (std::size_t i = 0; i < sealed.size(); ++i) {
            std::string changed = sealed;
            changed[i] = static_cast<char>(changed[i] ^ 1);
            EXPECT_EQ(CryptoErrorOf([&] { cipher.Open(changed); }), "authentication failed") << i;
            EXPECT_EQ(CryptoErrorOf([&] { cipher.Open(sealed.substr(0, i)); }), "authentication failed") << i;
        }
        EXPECT_EQ(CryptoErrorOf([&] { cipher.Open(nullptr, 100); }), "authentication failed");
        EXPECT_EQ(CryptoErrorOf([&] { AuthenticatedCipher(row.algorithm, SecureBuffer(16)); }),
                  "invalid key length");
    }
    const std::string sealed = AuthenticatedCipher(AuthenticatedCipher::kAES256GCM, key).Seal("message");
    EXPECT_EQ(
        CryptoErrorOf([&] { AuthenticatedCipher(AuthenticatedCipher::kChaCha20Poly1305, key).Open(sealed); }),
        "authentication failed");
}

}  // namespace
}  // namespace zarip::crypto
