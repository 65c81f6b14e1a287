// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/crypto/CryptoException.h>

namespace zarip::crypto {

/// A function of libgcrypt has failed.
class ZARIP_EXPORT GCryptException : public CryptoException {
public:
    /// @param operation  the operation that failed. The message is this, ": " and libgcrypt's description.
    /// @param error  a `gcry_error_t`.
    GCryptException(const std::string& operation, unsigned int error);
    GCryptException(const GCryptException& other);
    GCryptException& operator=(const GCryptException& other);
    ~GCryptException() override;

    /// Returns the `gcry_error_t`.
    unsigned int GetError() const { return _error; }

private:
    unsigned int _error;
};

}  // namespace zarip::crypto
