// SPDX-License-Identifier: MIT

#pragma once

#include <gcrypt.h>

#include <utility>

#include "zarip/crypto/GCryptException.h"

namespace zarip::crypto {

/// Owns a cipher of libgcrypt. Its key is in secure memory unless that is used up. *One thread at a time.*
class CipherHandle {
public:
    CipherHandle() = default;
    CipherHandle(int algorithm, int mode) {
        gcry_error_t error = ::gcry_cipher_open(&_handle, algorithm, mode, GCRY_CIPHER_SECURE);
        if (::gcry_err_code(error) == GPG_ERR_ENOMEM) {
            error = ::gcry_cipher_open(&_handle, algorithm, mode, 0);  // secure memory is used up
        }
        if (error != 0) {
            throw GCryptException("gcry_cipher_open", error);
        }
    }
    CipherHandle(const CipherHandle&) = delete;
    CipherHandle& operator=(const CipherHandle&) = delete;
    ~CipherHandle() { ::gcry_cipher_close(_handle); }

    gcry_cipher_hd_t Get() const { return _handle; }
    void Swap(CipherHandle& other) { std::swap(_handle, other._handle); }

private:
    gcry_cipher_hd_t _handle = nullptr;
};

}  // namespace zarip::crypto
