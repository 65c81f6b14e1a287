// SPDX-License-Identifier: MIT

#include "zarip/crypto/CryptoException.h"

#include <gcrypt.h>

#include "zarip/crypto/GCryptException.h"

namespace zarip::crypto {

CryptoException::CryptoException(const std::string& message) : _message(message) {}
CryptoException::CryptoException(const CryptoException& other) = default;
CryptoException& CryptoException::operator=(const CryptoException& other) = default;
CryptoException::~CryptoException() = default;

const char* CryptoException::what() const noexcept {
    return _message.c_str();
}

GCryptException::GCryptException(const std::string& operation, unsigned int error)
    : CryptoException(operation + ": " + ::gcry_strerror(error)), _error(error) {}
GCryptException::GCryptException(const GCryptException& other) = default;
GCryptException& GCryptException::operator=(const GCryptException& other) = default;
GCryptException::~GCryptException() = default;

}  // namespace zarip::crypto
