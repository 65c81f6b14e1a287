// SPDX-License-Identifier: MIT

#include <zarip/crypto/AuthenticatedCipher.h>
#include <zarip/crypto/Ciphers.h>
#include <zarip/crypto/CryptoUtils.h>
#include <zarip/crypto/Hmac.h>
#include <zarip/crypto/KeyFactory.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "Bytes.h"
#include "support/TempDir.h"

namespace zarip::crypto {
namespace {

/// Searches memory for bytes. They are stored with all bits inverted, so that the search does not find
/// itself.
class Needle {
public:
    Needle(const unsigned char* secret, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i) {
            _inverted.push_back(static_cast<unsigned char>(~secret[i]));
        }
    }

    /// Counts the occurrences in the writable memory of this process, in either byte order.
    unsigned int Count() const {
        constexpr std::size_t kBlock = 1U << 20U;
        const std::size_t size = _inverted.size();
        void* const mapped =
            ::mmap(nullptr, kBlock, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        const auto* const block = static_cast<const unsigned char*>(mapped);
        const int memory = ::open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
        EXPECT_NE(mapped, MAP_FAILED);
        EXPECT_GE(memory, 0);
        unsigned int count = 0;
        std::ifstream maps("/proc/self/maps");
        for (std::string line; std::getline(maps, line);) {
            unsigned long long begin = 0;
            unsigned long long end = 0;
            char access[5] = {};
            // The tables of a sanitizer are too large to read.
            if (std::sscanf(line.c_str(), "%llx-%llx %4s", &begin, &end, access) != 3 || access[0] != 'r' ||
                access[1] != 'w' || end - begin > (1ULL << 28U)) {
                continue;
            }
            for (unsigned long long at = begin; at + size <= end; at += kBlock - size) {
                const auto length = static_cast<std::size_t>(std::min<unsigned long long>(kBlock, end - at));
                const ssize_t got = ::pread(memory, mapped, length, static_cast<off_t>(at));
                if (got >= static_cast<ssize_t>(size)) {
                    const unsigned char* const last = block + got - size;
                    count +=
                        CountIn(block, last, _inverted.begin()) + CountIn(block, last, _inverted.rbegin());
                }
            }
        }
        ::close(memory);
        ::munmap(mapped, kBlock);
        return count;
    }

private:
    /// Counts the occurrences from `block` to `last`, which is the last possible beginning.
    template <class Iterator>
    unsigned int CountIn(const unsigned char* block, const unsigned char* last, Iterator inverted) const {
        const auto isInverted = [](unsigned char a, unsigned char b) { return (a ^ b) == 0xFF; };
        const auto size = static_cast<std::ptrdiff_t>(_inverted.size());
        unsigned int count = 0;
        for (const unsigned char* at = block; at <= last; ++at) {
            const void* const next =
                std::memchr(at, *inverted ^ 0xFF, static_cast<std::size_t>(last - at) + 1);
            if (next == nullptr) {
                break;
            }
            at = static_cast<const unsigned char*>(next);
            count += std::equal(inverted, inverted + size, at, isInverted) ? 1U : 0U;
        }
        return count;
    }

    Bytes _inverted;
};

/// Makes a search for the middle of the first prime.
Needle PrimeOf(const RsaPrivateKey& key) {
    const SecureBuffer pem = KeyFactory::SavePrivateKey(key, KeyFactory::kPKCS1);
    const std::string digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    SecureBuffer der(pem.GetSize());
    unsigned int size = 0;
    unsigned int group = 0;
    unsigned int count = 0;
    for (unsigned int i = 32; i < pem.GetSize() && pem.GetData()[i] != '='; ++i) {
        const std::size_t value = digits.find(static_cast<char>(pem.GetData()[i]));
        if (value != std::string::npos) {
            group = group * 64 + static_cast<unsigned int>(value);
            if (count++ % 4 != 0) {
                der.GetData()[size++] =
                    static_cast<unsigned char>(group >> (6 - 2 * ((count - 1) % 4)) & 0xFFU);
            }
        }
    }
    // It follows the version, the modulus, and the public and the private exponent.
    const unsigned int prime = 4 + 3 + (4 + 257) + 5 + (4 + 256);
    return {der.GetData() + prime + 40, 32};
}

TEST(SecretsTest, WhatKeyFactoryHasWorkedWithIsNowhereInMemoryAfterwards) {
    std::optional<RsaPrivateKey> key(KeyFactory::GenerateRsa(2048));
    const Needle prime = PrimeOf(*key);
    EXPECT_GE(prime.Count(), 1U) << "the key itself";
    for (const KeyFactory::Format format : {KeyFactory::kPKCS1, KeyFactory::kPKCS8}) {
        key = KeyFactory::LoadPrivateKey(KeyFactory::SavePrivateKey(*key, format));
    }
    const test::TempDir folder;
    const SecureBuffer passPhrase("horse", 5);
    key = KeyFactory::LoadPrivateKey(KeyFactory::SavePrivateKey(*key, passPhrase), passPhrase);
    KeyFactory::SavePrivateKeyFile(folder.File("key"), *key);
    key = KeyFactory::LoadPrivateKeyFile(folder.File("key"));
    EXPECT_GE(prime.Count(), 1U);
    key.reset();
    EXPECT_EQ(prime.Count(), 0U);
}

TEST(SecretsTest, NeitherKeysNorPlainTextStayBehind) {
    std::optional<SecureBuffer> key(CryptoUtils::GenerateKey(24));
    std::optional<SecureBuffer> text(CryptoUtils::GenerateKey(40));
    std::vector<Needle> needles = {{key->GetData(), 24}, {text->GetData() + 16, 24}};
    const unsigned char vector[16] = {};
    for (const Cipher::Padding padding : {Cipher::kNoPadding, Cipher::kPKCS7Padding}) {
        AES aes(Cipher::kCTR, padding);
        TripleDES triple(Cipher::kCFB, padding);
        unsigned int block = 16;
        for (Cipher* const cipher : {static_cast<Cipher*>(&aes), static_cast<Cipher*>(&triple)}) {
            SecureBuffer out(64);
            cipher->Init(Cipher::kEncrypt, key->GetData(), 24, vector, block);
            unsigned int size = cipher->Update(text->GetData(), 40, out.GetData(), 64);
            size += cipher->DoFinal(out.GetData() + size, 64 - size);
            cipher->Init(Cipher::kDecrypt, key->GetData(), 24, vector, block);
            cipher->Update(out.GetData(), size, out.GetData(), 64);
            block = 8;
        }
    }
    {
        const AuthenticatedCipher sealing(AuthenticatedCipher::kAES256GCM, CryptoUtils::GenerateKey(32));
        const SecureBuffer opened = sealing.Open(sealing.Seal(*text));
        const std::string changed = sealing.Seal(*text) + "x";
        EXPECT_EQ(CryptoErrorOf([&] { sealing.Open(changed); }), "authentication failed");
    }
    HmacSHA256 hmac(key->GetData(), 24);
    unsigned char digest[32];
    hmac.DoFinal(digest, sizeof digest);
    std::optional<SecureBuffer> derived(CryptoUtils::DeriveWeakKey("phrase", 6, vector, 16, 10, 32));
    needles.emplace_back(derived->GetData(), 24);
    std::optional<SecureBuffer> large(SecureBuffer::kMaxLocked + 1);  // in memory that is not locked
    std::memcpy(large->GetData() + 10'000, text->GetData(), 40);
    SecureBuffer copy(*text);
    *text = copy;
    copy = SecureBuffer(*key);
    for (const Needle& needle : needles) {
        EXPECT_GE(needle.Count(), 1U);
    }
    copy.Shrink(1);
    large.reset();
    text.reset();
    key.reset();
    derived.reset();
    EXPECT_EQ(needles[0].Count(), 0U) << "the key";
    EXPECT_EQ(needles[1].Count(), 0U) << "the text";
    EXPECT_EQ(needles[2].Count(), 0U) << "the key from a pass phrase";
}

}  // namespace
}  // namespace zarip::crypto
