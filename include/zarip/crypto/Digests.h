// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <string_view>

#include <zarip/osa/Export.h>

struct gcry_md_handle;

namespace zarip::crypto {

/// A message digest. `Update` may be called any number of times; `DoFinal` returns the digest and starts the
/// next message. *One thread at a time.*
class ZARIP_EXPORT Digest {
public:
    Digest() = default;
    Digest(const Digest&) = default;
    Digest& operator=(const Digest&) = default;
    virtual ~Digest();

    /// Returns libgcrypt's name of the algorithm, for example "SHA256".
    virtual const char* GetAlgorithmName() const = 0;

    /// Returns the size of the digest in bytes.
    virtual unsigned int GetDigestSize() const = 0;

    /// Discards the current message.
    virtual void Reset() = 0;

    virtual void Update(unsigned char byte) = 0;

    /// Adds bytes to the message. Does nothing if `data` is null or `length` is 0.
    virtual void Update(const unsigned char* data, unsigned int length) = 0;

    /// Writes the digest and resets the object for the next message. Throws `CryptoException` "null output
    /// buffer", or "invalid buffer length" if `out` is too small.
    /// @param length  the size of `out` in bytes; the bytes after the digest do not change.
    virtual void DoFinal(unsigned char* out, unsigned int length) = 0;

    /// These functions do the same with strings of bytes. `Finish` calls `DoFinal` and returns the digest as
    /// `GetDigestSize()` bytes, not as hexadecimal digits.
    void Update(std::string_view data);
    std::string Finish();
};

/// A digest of libgcrypt.
///
/// Deliberate: a copy has the algorithm but no context, and so has an object after an assignment to it.
/// Digests are not meant to be copied while in use, and such a copy is cheap. An object also has no context
/// if libgcrypt refuses the algorithm (MD5 in FIPS mode) or its digests have no fixed size (SHAKE). Without a
/// context, `Update` and `Reset` do nothing and `DoFinal` throws `CryptoException` "no digest context".
class ZARIP_EXPORT GCryptDigest : public Digest {
public:
    /// @param algorithm  libgcrypt's number of the algorithm.
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
    gcry_md_handle* _handle;  ///< the context in use, or null
    gcry_md_handle* _opened;  ///< the context that the destructor closes, or null
};

/// For old data and checksums only: two messages with the same digest can be made in seconds.
class ZARIP_EXPORT MD5 : public GCryptDigest {
public:
    MD5();
};

/// For old data only: two messages with the same digest have been published.
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

/// For old data only: two messages with the same digest can be made by hand.
class ZARIP_EXPORT MD4 : public GCryptDigest {
public:
    MD4();
};

/// The checksum of Ethernet and ZIP files, most significant byte first. It detects accidental changes but not
/// attacks.
class ZARIP_EXPORT CRC32 : public GCryptDigest {
public:
    CRC32();
};

}  // namespace zarip::crypto
