// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/crypto/CryptoException.h>

namespace zarip::crypto {

/// An error code of libgcrypt.
class ZARIP_EXPORT GCryptException : public CryptoException {
public:
    /// @param operation  what failed; the text is this, ": " and libgcrypt's own.
    /// @param error  a `gcry_error_t`.
    GCryptException(const std::string& operation, unsigned int error);
    GCryptException(const GCryptException& other);
    GCryptException& operator=(const GCryptException& other);
    ~GCryptException() override;

    /// The `gcry_error_t`.
    unsigned int GetError() const { return _error; }

private:
    unsigned int _error;
};

}  // namespace zarip::crypto
