#pragma once

#include <zarip/crypto/Digests.h>

namespace zarip::crypto {

/// A digest that only holders of a key can make and check: it tells that data are as they were written, and
/// by whom. Compare it with `CryptoUtils::AreEqual`. *One thread at a time.*
class ZARIP_EXPORT Hmac : public Digest {
public:
    /// @param algorithm  libgcrypt's number of the digest.
    /// @param key  of any length; that of the digest is best. Null for none.
    /// Throws `GCryptException` where libgcrypt refuses them.
    Hmac(int algorithm, const unsigned char* key, unsigned int length);
    Hmac(const Hmac&) = delete;
    Hmac& operator=(const Hmac&) = delete;
    ~Hmac() override;

    /// Of the digest, "SHA256" for example.
    const char* GetAlgorithmName() const override;
    unsigned int GetDigestSize() const override;

    /// Forgets what has gone in; the key stays.
    void Reset() override;
    void Update(unsigned char byte) override;
    void Update(const unsigned char* data, unsigned int length) override;
    void DoFinal(unsigned char* out, unsigned int length) override;

private:
    int _algorithm;
    gcry_md_handle* _handle;
};

class ZARIP_EXPORT HmacSHA1 : public Hmac {
public:
    HmacSHA1(const unsigned char* key, unsigned int length);
};

class ZARIP_EXPORT HmacSHA256 : public Hmac {
public:
    HmacSHA256(const unsigned char* key, unsigned int length);
};

class ZARIP_EXPORT HmacSHA512 : public Hmac {
public:
    HmacSHA512(const unsigned char* key, unsigned int length);
};

}  // namespace zarip::crypto
