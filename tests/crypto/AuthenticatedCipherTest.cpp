// SPDX-License-Identifier: MIT

#include <zarip/crypto/AuthenticatedCipher.h>
#include <zarip/crypto/CryptoUtils.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>

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
    for (const auto& algorithm : kAlgorithms) {
        const auto check = [&](const std::vector<std::string>& row, const std::string& line) {
            std::vector<std::string> bytes;  // key, nonce, associated data, message, encrypted message, tag
            std::transform(row.begin() + 1, row.end(), std::back_inserter(bytes),
                           [](const std::string& column) { return crypto::ToText(FromHex(column)); });
            const AuthenticatedCipher cipher(
                algorithm.algorithm,
                SecureBuffer(bytes.at(0).data(), static_cast<unsigned int>(bytes[0].size())));
            std::string opened = "nothing";
            const std::string error = CryptoErrorOf(
                [&] { opened = ToText(cipher.Open(bytes.at(1) + bytes.at(4) + bytes.at(5), bytes.at(2))); });
            const bool isValid = row[0] == "valid";
            EXPECT_EQ(error, isValid ? "no exception" : "authentication failed") << line;
            EXPECT_EQ(opened, isValid ? bytes.at(3) : "nothing") << line;
        };
        EXPECT_GT(ForEachRow(algorithm.table, check), 50) << algorithm.table;
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
