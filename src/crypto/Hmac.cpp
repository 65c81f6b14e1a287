// SPDX-License-Identifier: MIT

#include "zarip/crypto/Hmac.h"

#include <gcrypt.h>

#include <cstring>

#include "zarip/crypto/CryptoException.h"
#include "zarip/crypto/CryptoUtils.h"
#include "zarip/crypto/GCryptException.h"
#include "zarip/crypto/GCryptInit.h"

namespace zarip::crypto {

Hmac::Hmac(int algorithm, const unsigned char* key, unsigned int length)
    : _algorithm(algorithm), _handle(nullptr) {
    GCryptInit::InitializeGcrypt();
    gcry_error_t error = ::gcry_md_open(&_handle, algorithm, GCRY_MD_FLAG_HMAC | GCRY_MD_FLAG_SECURE);
    if (::gcry_err_code(error) == GPG_ERR_ENOMEM) {
        error = ::gcry_md_open(&_handle, algorithm, GCRY_MD_FLAG_HMAC);  // secure memory is used up
    }
    if (error == 0) {
        error = ::gcry_md_setkey(_handle, key != nullptr ? key : reinterpret_cast<const unsigned char*>(""),
                                 key != nullptr ? length : 0);
    }
    if (error != 0) {
        ::gcry_md_close(_handle);
        throw GCryptException("HMAC", error);
    }
}

Hmac::Hmac(int algorithm, std::string_view key)
    : Hmac(algorithm, reinterpret_cast<const unsigned char*>(key.data()),
           static_cast<unsigned int>(key.size())) {}

Hmac::~Hmac() {
    ::gcry_md_close(_handle);
}

const char* Hmac::GetAlgorithmName() const {
    return ::gcry_md_algo_name(_algorithm);
}

unsigned int Hmac::GetDigestSize() const {
    return ::gcry_md_get_algo_dlen(_algorithm);
}

void Hmac::Reset() {
    ::gcry_md_reset(_handle);
}

void Hmac::Update(unsigned char byte) {
    gcry_md_putc(_handle, byte);
}

void Hmac::Update(const unsigned char* data, unsigned int length) {
    if (data != nullptr && length != 0) {
        ::gcry_md_write(_handle, data, length);
    }
}

void Hmac::DoFinal(unsigned char* out, unsigned int length) {
    const unsigned int size = GetDigestSize();
    if (out == nullptr) {
        throw CryptoException("null output buffer");
    }
    if (size > length) {
        throw CryptoException("invalid buffer length");
    }
    std::memcpy(out, ::gcry_md_read(_handle, _algorithm), size);
    Reset();
}

bool Hmac::Verify(const unsigned char* expected, unsigned int length) {
    return Verify({reinterpret_cast<const char*>(expected), expected != nullptr ? length : 0});
}

bool Hmac::Verify(std::string_view expected) {
    const std::string digest = Finish();
    return expected.size() == digest.size() &&
           CryptoUtils::AreEqual(digest.data(), expected.data(), static_cast<unsigned int>(digest.size()));
}

HmacSHA1::HmacSHA1(const unsigned char* key, unsigned int length) : Hmac(GCRY_MD_SHA1, key, length) {}
HmacSHA1::HmacSHA1(std::string_view key) : Hmac(GCRY_MD_SHA1, key) {}
HmacSHA1::HmacSHA1(const SecureBuffer& key) : HmacSHA1(key.GetData(), key.GetSize()) {}
HmacSHA256::HmacSHA256(const unsigned char* key, unsigned int length) : Hmac(GCRY_MD_SHA256, key, length) {}
HmacSHA256::HmacSHA256(std::string_view key) : Hmac(GCRY_MD_SHA256, key) {}
HmacSHA256::HmacSHA256(const SecureBuffer& key) : HmacSHA256(key.GetData(), key.GetSize()) {}
HmacSHA512::HmacSHA512(const unsigned char* key, unsigned int length) : Hmac(GCRY_MD_SHA512, key, length) {}
HmacSHA512::HmacSHA512(std::string_view key) : Hmac(GCRY_MD_SHA512, key) {}
HmacSHA512::HmacSHA512(const SecureBuffer& key) : HmacSHA512(key.GetData(), key.GetSize()) {}

}  // namespace zarip::crypto
