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

SecureBuffer CryptoUtils::DeriveKey(const void* passPhrase, unsigned int passPhraseLength, const void* salt,
                                    unsigned int saltLength, unsigned int iterations,
                                    unsigned int keyLength) {
    if (passPhrase == nullptr || passPhraseLength == 0) {
        throw CryptoException("empty pass phrase");
    }
    if (salt == nullptr || saltLength == 0) {
        throw CryptoException("empty salt");
    }
    if (iterations == 0) {
        throw CryptoException("no iterations");
    }
    if (keyLength == 0) {
        throw CryptoException("invalid key length");
    }
    SecureBuffer key(keyLength);
    const gcry_error_t error =
        ::gcry_kdf_derive(passPhrase, passPhraseLength, GCRY_KDF_PBKDF2, GCRY_MD_SHA256, salt, saltLength,
                          iterations, keyLength, key.GetData());
    if (error != 0) {
        throw GCryptException("gcry_kdf_derive", error);
    }
    return key;
}

}  // namespace zarip::crypto
