// SPDX-License-Identifier: MIT

#include "zarip/crypto/Digests.h"

#include <gcrypt.h>

#include <algorithm>
#include <cstring>

#include "zarip/crypto/CryptoException.h"
#include "zarip/crypto/GCryptInit.h"

namespace zarip::crypto {

Digest::~Digest() = default;

void Digest::Update(std::string_view data) {
    constexpr std::size_t kBlock = std::size_t{1} << 30U;  // lengths have 32 bits
    for (; !data.empty(); data.remove_prefix(std::min(data.size(), kBlock))) {
        Update(reinterpret_cast<const unsigned char*>(data.data()),
               static_cast<unsigned int>(std::min(data.size(), kBlock)));
    }
}

std::string Digest::Finish() {
    std::string digest(GetDigestSize(), '\0');
    DoFinal(reinterpret_cast<unsigned char*>(digest.data()), static_cast<unsigned int>(digest.size()));
    return digest;
}

GCryptDigest::GCryptDigest(int algorithm) : _algorithm(algorithm), _handle(nullptr), _opened(nullptr) {
    GCryptInit::InitializeGcrypt();
    // libgcrypt would end the process if a digest without a fixed size (SHAKE) or of no known algorithm were
    // finished.
    if (::gcry_md_get_algo_dlen(algorithm) != 0) {
        ::gcry_md_open(&_opened, algorithm, 0);  // leaves null if it fails
    }
    _handle = _opened;
}

GCryptDigest::GCryptDigest(const GCryptDigest& other)
    : Digest(other), _algorithm(other._algorithm), _handle(nullptr), _opened(nullptr) {}

// Deliberate: an object has no context after an assignment, including self-assignment.
// NOLINTNEXTLINE(cert-oop54-cpp,bugprone-unhandled-self-assignment)
GCryptDigest& GCryptDigest::operator=(const GCryptDigest& other) {
    _algorithm = other._algorithm;
    _handle = nullptr;
    return *this;
}

GCryptDigest::~GCryptDigest() {
    ::gcry_md_close(_opened);
}

const char* GCryptDigest::GetAlgorithmName() const {
    return ::gcry_md_algo_name(_algorithm);
}

unsigned int GCryptDigest::GetDigestSize() const {
    return ::gcry_md_get_algo_dlen(_algorithm);
}

void GCryptDigest::Reset() {
    if (_handle != nullptr) {
        ::gcry_md_reset(_handle);
    }
}

void GCryptDigest::Update(unsigned char byte) {
    if (_handle != nullptr) {
        gcry_md_putc(_handle, byte);
    }
}

void GCryptDigest::Update(const unsigned char* data, unsigned int length) {
    if (_handle != nullptr && data != nullptr && length != 0) {
        ::gcry_md_write(_handle, data, length);
    }
}

void GCryptDigest::DoFinal(unsigned char* out, unsigned int length) {
    const unsigned int size = GetDigestSize();
    if (out == nullptr) {
        throw CryptoException("null output buffer");
    }
    if (size > length) {
        throw CryptoException("invalid buffer length");
    }
    const unsigned char* const digest = _handle != nullptr ? ::gcry_md_read(_handle, _algorithm) : nullptr;
    if (digest == nullptr) {
        throw CryptoException("no digest context");
    }
    std::memcpy(out, digest, size);
    Reset();
}

MD5::MD5() : GCryptDigest(GCRY_MD_MD5) {}
SHA1::SHA1() : GCryptDigest(GCRY_MD_SHA1) {}
SHA256::SHA256() : GCryptDigest(GCRY_MD_SHA256) {}
SHA384::SHA384() : GCryptDigest(GCRY_MD_SHA384) {}
SHA512::SHA512() : GCryptDigest(GCRY_MD_SHA512) {}
MD4::MD4() : GCryptDigest(GCRY_MD_MD4) {}
CRC32::CRC32() : GCryptDigest(GCRY_MD_CRC32) {}

}  // namespace zarip::crypto
