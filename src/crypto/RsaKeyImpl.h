// SPDX-License-Identifier: MIT

#pragma once

#include <gcrypt.h>

#include <memory>
#include <utility>
#include <vector>

namespace zarip::crypto {

/// Owns a number of libgcrypt.
class Mpi {
public:
    explicit Mpi(gcry_mpi_t value = nullptr) : _value(value) {}
    Mpi(Mpi&& other) noexcept : _value(std::exchange(other._value, nullptr)) {}
    Mpi& operator=(Mpi&& other) noexcept {
        std::swap(_value, other._value);
        return *this;
    }
    ~Mpi() { ::gcry_mpi_release(_value); }

    gcry_mpi_t Get() const { return _value; }
    gcry_mpi_t* Address() { return &_value; }
    unsigned int GetBits() const { return ::gcry_mpi_get_nbits(_value); }
    bool IsOdd() const { return ::gcry_mpi_test_bit(_value, 0) != 0; }

private:
    gcry_mpi_t _value;
};

/// Owns an S-expression, the form in which libgcrypt takes keys and data.
class Sexp {
public:
    explicit Sexp(gcry_sexp_t value = nullptr) : _value(value) {}
    Sexp(Sexp&& other) noexcept : _value(std::exchange(other._value, nullptr)) {}
    Sexp& operator=(Sexp&& other) noexcept {
        std::swap(_value, other._value);
        return *this;
    }
    ~Sexp() { ::gcry_sexp_release(_value); }

    gcry_sexp_t Get() const { return _value; }
    gcry_sexp_t* Address() { return &_value; }

private:
    gcry_sexp_t _value;
};

/// A public or a private key.
struct RsaKeyImpl {
    Sexp _key;
    unsigned int _bits = 0;
    std::vector<unsigned char> _modulus;  ///< `GetSize()` bytes
    std::shared_ptr<const RsaKeyImpl>
        _publicPart;  ///< the public part of a private key, which it does not keep alive

    unsigned int GetSize() const { return (_bits + 7) / 8; }
};

}  // namespace zarip::crypto
