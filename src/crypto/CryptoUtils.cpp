// SPDX-License-Identifier: MIT

#include "zarip/crypto/CryptoUtils.h"

#include <gcrypt.h>
#include <string.h>

#include "zarip/crypto/CryptoException.h"
#include "zarip/crypto/GCryptException.h"
#include "zarip/crypto/GCryptInit.h"

namespace zarip::crypto {

void CryptoUtils::Randomize(unsigned char* out, unsigned int length) {
    GCryptInit::InitializeGcrypt();
    if (length != 0) {
        ::gcry_randomize(out, length, GCRY_STRONG_RANDOM);
    }
}

SecureBuffer CryptoUtils::GenerateKey(unsigned int length) {
    SecureBuffer key(length);
    if (length != 0) {
        ::gcry_randomize(key.GetData(), length, GCRY_VERY_STRONG_RANDOM);
    }
    return key;
}

bool CryptoUtils::AreEqual(const void* a, const void* b, unsigned int length) noexcept {
    const auto* left = static_cast<const volatile unsigned char*>(a);
    const auto* right = static_cast<const volatile unsigned char*>(b);
    unsigned int difference = 0;
    for (unsigned int i = 0; i < length; ++i) {
        difference |= static_cast<unsigned int>(left[i]) ^ static_cast<unsigned int>(right[i]);
    }
    return difference == 0;
}

void CryptoUtils::Wipe(void* data, unsigned int length) noexcept {
    if (length != 0) {
        ::explicit_bzero(data, length);
    }
}

namespace {

constexpr unsigned int kMinSalt = 16;
constexpr unsigned int kMinIterations = 10'000;
constexpr unsigned int kMinCost = 16'384;
constexpr unsigned int kMaxCost = 1'048'576;
constexpr unsigned int kMaxParallelization = 16;

struct Secret {
    const void* data;
    unsigned int length;
};

void Require(bool holds, const char* otherwise) {
    if (!holds) {
        throw CryptoException(otherwise);
    }
}

SecureBuffer Derive(int algorithm, int variant, Secret passPhrase, Secret salt, unsigned long iterations,
                    unsigned int keyLength) {
    Require(passPhrase.data != nullptr && passPhrase.length != 0, "empty pass phrase");
    Require(salt.data != nullptr && salt.length != 0, "empty salt");
    Require(iterations != 0, "no iterations");
    Require(keyLength != 0, "invalid key length");
    SecureBuffer key(keyLength);
    const gcry_error_t error =
        ::gcry_kdf_derive(passPhrase.data, passPhrase.length, algorithm, variant, salt.data, salt.length,
                          iterations, keyLength, key.GetData());
    if (error != 0) {
        throw GCryptException("gcry_kdf_derive", error);
    }
    return key;
}

}  // namespace

SecureBuffer CryptoUtils::DeriveKey(const void* passPhrase, unsigned int passPhraseLength, const void* salt,
                                    unsigned int saltLength, unsigned int iterations,
                                    unsigned int keyLength) {
    Require(salt == nullptr || saltLength == 0 || saltLength >= kMinSalt, "salt too short");
    Require(iterations == 0 || iterations >= kMinIterations, "too few iterations");
    return DeriveWeakKey(passPhrase, passPhraseLength, salt, saltLength, iterations, keyLength);
}

SecureBuffer CryptoUtils::DeriveWeakKey(const void* passPhrase, unsigned int passPhraseLength,
                                        const void* salt, unsigned int saltLength, unsigned int iterations,
                                        unsigned int keyLength) {
    return Derive(GCRY_KDF_PBKDF2, GCRY_MD_SHA256, {passPhrase, passPhraseLength}, {salt, saltLength},
                  iterations, keyLength);
}

SecureBuffer CryptoUtils::DeriveKeyScrypt(const void* passPhrase, unsigned int passPhraseLength,
                                          const void* salt, unsigned int saltLength, unsigned int cost,
                                          unsigned int parallelization, unsigned int keyLength) {
    Require(salt == nullptr || saltLength == 0 || saltLength >= kMinSalt, "salt too short");
    Require(cost >= kMinCost && cost <= kMaxCost && (cost & (cost - 1)) == 0 && parallelization >= 1 &&
                parallelization <= kMaxParallelization,
            "invalid cost");
    return Derive(GCRY_KDF_SCRYPT, static_cast<int>(cost), {passPhrase, passPhraseLength}, {salt, saltLength},
                  parallelization, keyLength);
}

}  // namespace zarip::crypto
