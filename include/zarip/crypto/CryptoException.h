// SPDX-License-Identifier: MIT

#pragma once

#include <exception>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::crypto {

/// A cryptographic operation has failed. `what()` describes the error.
class ZARIP_EXPORT CryptoException : public std::exception {
public:
    explicit CryptoException(const std::string& message);
    CryptoException(const CryptoException& other);
    CryptoException& operator=(const CryptoException& other);
    ~CryptoException() override;

    const char* what() const noexcept override;

private:
    std::string _message;
};

}  // namespace zarip::crypto
