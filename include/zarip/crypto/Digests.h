// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <string_view>

#include <zarip/osa/Export.h>

struct gcry_md_handle;

namespace zarip::crypto {

/// A message digest: bytes go in with `Update`, the digest comes out with `DoFinal`. *One thread at a time.*
class ZARIP_EXPORT Digest {
public:
    Digest() = default;
    Digest(const Digest&) = default;
    Digest& operator=(const Digest&) = default;
    virtual ~Digest();

    /// As libgcrypt spells it, "SHA256" for example.
    virtual const char* GetAlgorithmName() const = 0;

    /// In bytes.
    virtual unsigned int GetDigestSize() const = 0;

    /// Forgets what has gone in.
    virtual void Reset() = 0;

    virtual void Update(unsigned char byte) = 0;

    /// Does nothing when `data` is null or `length` 0.
    virtual void Update(const unsigned char* data, unsigned int length) = 0;

    /// Writes the digest and resets the object for the next message.
    /// @param length  the size of `out` in bytes; what follows the digest is left as it is.
    /// Throws `CryptoException`: "null output buffer", or "invalid buffer length" for one that is too small.
    virtual void DoFinal(unsigned char* out, unsigned int length) = 0;

    /// The same for strings of bytes. `Finish` is `DoFinal` and returns the digest: `GetDigestSize()` bytes,
    /// not hexadecimal digits.
    void Update(std::string_view data);
    std::string Finish();
};

/// A digest of libgcrypt.
///
/// Deliberate: a copy knows the algorithm but has no context of its own, and an object that is assigned to
/// puts its context away until it ends; digests are not meant to be copied while in use, and a copy is cheap.
/// Without a context, also where libgcrypt refuses the algorithm (MD5 in FIPS mode) or its digests have no
/// fixed size (SHAKE), `Update` and `Reset` do nothing and `DoFinal` throws `CryptoException` "no digest
/// context".
class ZARIP_EXPORT GCryptDigest : public Digest {
public:
    /// @param algorithm  libgcrypt's number of it.
    explicit GCryptDigest(int algorithm);
    GCryptDigest(const GCryptDigest& other);
    GCryptDigest& operator=(const GCryptDigest& other);
    ~GCryptDigest() override;

    using Digest::Update;
    const char* GetAlgorithmName() const override;
    unsigned int GetDigestSize() const override;
    void Reset() override;
    void Update(unsigned char byte) override;
    void Update(const unsigned char* data, unsigned int length) override;
    void DoFinal(unsigned char* out, unsigned int length) override;

private:
    int _algorithm;
    gcry_md_handle* _handle;  ///< in use, or null
    gcry_md_handle* _opened;  ///< by the constructor, to be closed by the destructor
};

/// For old data only, and for checksums: two messages with one digest are made in seconds.
class ZARIP_EXPORT MD5 : public GCryptDigest {
public:
    MD5();
};

/// For old data only: two messages with one digest have been made.
class ZARIP_EXPORT SHA1 : public GCryptDigest {
public:
    SHA1();
};

class ZARIP_EXPORT SHA256 : public GCryptDigest {
public:
    SHA256();
};

class ZARIP_EXPORT SHA384 : public GCryptDigest {
public:
    SHA384();
};

class ZARIP_EXPORT SHA512 : public GCryptDigest {
public:
    SHA512();
};

/// For old data only: two messages with one digest are made by hand.
class ZARIP_EXPORT MD4 : public GCryptDigest {
public:
    MD4();
};

/// The checksum of Ethernet and ZIP files, most significant byte first. It finds accidents, no attackers.
class ZARIP_EXPORT CRC32 : public GCryptDigest {
public:
    CRC32();
};

}  // namespace zarip::crypto
