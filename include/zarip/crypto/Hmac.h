// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/crypto/Digests.h>
#include <zarip/crypto/SecureBuffer.h>

namespace zarip::crypto {

/// A digest that only holders of a key can make and check. It proves that data are unchanged and come from a
/// holder of the key. Check it with `Verify`; another comparison can reveal to an attacker how many bytes
/// were right. *One thread at a time.*
class ZARIP_EXPORT Hmac : public Digest {
public:
    /// Throws `GCryptException` if libgcrypt refuses the arguments.
    /// @param algorithm  libgcrypt's number of the digest.
    /// @param key  a key of any length, preferably that of the digest; null is an empty key.
    Hmac(int algorithm, const unsigned char* key, unsigned int length);
    Hmac(int algorithm, std::string_view key);
    Hmac(const Hmac&) = delete;
    Hmac& operator=(const Hmac&) = delete;
    ~Hmac() override;

    /// Returns the name of the digest, for example "SHA256".
    const char* GetAlgorithmName() const override;
    unsigned int GetDigestSize() const override;

    /// Discards the current message; the key stays.
    void Reset() override;
    void Update(unsigned char byte) override;
    void Update(const unsigned char* data, unsigned int length) override;
    void DoFinal(unsigned char* out, unsigned int length) override;
    using Digest::Update;

    /// Ends the message as `DoFinal` does and returns whether its complete digest is `expected`. The time
    /// that this takes does not depend on how many bytes are right.
    bool Verify(const unsigned char* expected, unsigned int length);
    bool Verify(std::string_view expected);

private:
    int _algorithm;
    gcry_md_handle* _handle;
};

/// For old data and old peers only; use SHA-256 for anything new.
class ZARIP_EXPORT HmacSHA1 : public Hmac {
public:
    HmacSHA1(const unsigned char* key, unsigned int length);
    explicit HmacSHA1(std::string_view key);
    explicit HmacSHA1(const SecureBuffer& key);
};

class ZARIP_EXPORT HmacSHA256 : public Hmac {
public:
    HmacSHA256(const unsigned char* key, unsigned int length);
    explicit HmacSHA256(std::string_view key);
    explicit HmacSHA256(const SecureBuffer& key);
};

class ZARIP_EXPORT HmacSHA512 : public Hmac {
public:
    HmacSHA512(const unsigned char* key, unsigned int length);
    explicit HmacSHA512(std::string_view key);
    explicit HmacSHA512(const SecureBuffer& key);
};

}  // namespace zarip::crypto
