// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <zarip/crypto/SecureBuffer.h>

namespace zarip::crypto {

/// A block cipher, for formats that others have laid down; for data of one's own take `AuthenticatedCipher`.
/// `Init` with a key, bytes go in and come out with `Update`, the rest with `DoFinal`. *One thread at a
/// time.* All failures are `CryptoException`s.
class ZARIP_EXPORT Cipher {
public:
    enum Mode {
        kECB,  ///< every block for itself: equal blocks stay recognisable
        kCBC,
        kCTR,  ///< a stream: any length; a vector must never be used twice with a key
        kCFB   ///< a stream: any length
    };
    enum Padding {
        kNoPadding,    ///< ECB and CBC then take whole blocks only
        kPKCS7Padding  ///< adds 1 to a whole block of bytes, in every mode
    };
    enum Direction { kEncrypt, kDecrypt };

    Cipher() = default;
    Cipher(const Cipher&) = delete;
    Cipher& operator=(const Cipher&) = delete;
    virtual ~Cipher();

    /// "AES", "DES", "3DES", "Blowfish", "Twofish".
    virtual const char* GetAlgorithmName() const = 0;

    /// In bytes.
    virtual unsigned int GetBlockSize() const = 0;

    /// Starts a message, whatever went in before.
    /// @param vector  a block, the initialization vector or the counter's first value; null with ECB
    /// "null key", "invalid key length", "weak key", "null vector", "invalid vector length"; the object is
    /// then as it was.
    virtual void Init(Direction direction, const unsigned char* key, unsigned int keyLength,
                      const unsigned char* vector = nullptr, unsigned int vectorLength = 0) = 0;

    /// Starts over, with the same key and the same vector: for reading again, and with ECB. Two messages that
    /// were encrypted with one vector show what they have in common, so encrypting in another mode throws
    /// "another message needs another vector". "cipher has no key" before `Init`.
    virtual void Reset() = 0;

    /// Starts another message with the same key.
    virtual void Reset(const unsigned char* vector, unsigned int vectorLength) = 0;

    /// The most bytes that an `Update` of so many bytes and a `DoFinal` after it write together.
    virtual unsigned long long GetOutputSize(unsigned int length) const = 0;

    /// Does nothing when `data` is null or `length` 0.
    /// @param out  may be `data`, except where bytes of an earlier call wait for the rest of their block
    /// @param size  of `out` in bytes; `length` and a block always suffice
    /// @return how many bytes were written. Streams write all; otherwise bytes wait until they are a block,
    /// and the
    ///         last block of what is decrypted with padding waits for `DoFinal`.
    /// "cipher has no key", "cipher is finished" after `DoFinal`, "null output buffer", "invalid buffer
    /// length", "overlapping buffers"; nothing has gone in then.
    virtual unsigned int Update(const unsigned char* data, unsigned int length, unsigned char* out,
                                unsigned int size) = 0;

    /// Ends the message; `Reset` or `Init` starts the next one.
    /// @param size  of `out`: with padding a block, even if less will be written; otherwise `out` may be null
    /// @return how many bytes were written.
    /// As `Update`; "incomplete block" for data that are no whole blocks, and "invalid padding" when
    /// decrypting with a wrong key or of changed data, which mostly but not always shows. (An `Hmac` tells
    /// for certain: check it first.) How long it takes does not tell what is wrong with the padding. After
    /// these two the message has ended.
    virtual unsigned int DoFinal(unsigned char* out, unsigned int size) = 0;

    /// The same for strings of bytes; `Finish` is `DoFinal` and returns the rest. What was decrypted is not
    /// wiped when a string ends: for secrets take the functions above and a `SecureBuffer`.
    void Init(Direction direction, const SecureBuffer& key, std::string_view vector = {});
    void Reset(std::string_view vector);
    std::string Update(std::string_view data);
    std::string Finish();
};

struct CipherFamily;
struct GCryptCipherImpl;

/// A cipher of libgcrypt. Keys stay in secure memory (see `SecureBuffer`).
class ZARIP_EXPORT GCryptCipher : public Cipher {
public:
    ~GCryptCipher() override;

    using Cipher::Init;
    using Cipher::Reset;
    using Cipher::Update;
    const char* GetAlgorithmName() const override;
    unsigned int GetBlockSize() const override;
    void Init(Direction direction, const unsigned char* key, unsigned int keyLength,
              const unsigned char* vector = nullptr, unsigned int vectorLength = 0) override;
    void Reset() override;
    void Reset(const unsigned char* vector, unsigned int vectorLength) override;
    unsigned long long GetOutputSize(unsigned int length) const override;
    unsigned int Update(const unsigned char* data, unsigned int length, unsigned char* out,
                        unsigned int size) override;
    unsigned int DoFinal(unsigned char* out, unsigned int size) override;

protected:
    GCryptCipher(const CipherFamily& family, Mode mode, Padding padding);

private:
    std::unique_ptr<GCryptCipherImpl> _impl;
};

/// Keys of 16, 24 or 32 bytes, blocks of 16.
class ZARIP_EXPORT AES : public GCryptCipher {
public:
    explicit AES(Mode mode, Padding padding = kNoPadding);
};

/// Keys and blocks of 8 bytes; for old data only. Parity bits are not looked at. The published weak and
/// semi-weak keys are refused: with them encrypting twice decrypts.
class ZARIP_EXPORT DES : public GCryptCipher {
public:
    explicit DES(Mode mode, Padding padding = kNoPadding);
};

/// Keys of 24 bytes, or of 16 whose first third is also the last; blocks of 8. For old data only.
/// Refused as weak are keys with a weak DES key in them, and those where the second third equals one beside
/// it, which would make it plain DES.
class ZARIP_EXPORT TripleDES : public GCryptCipher {
public:
    explicit TripleDES(Mode mode, Padding padding = kNoPadding);
};

/// Keys of 4 to 56 bytes, blocks of 8; for old data only. No key is refused as weak: those that are called so
/// are one in 32768 of all, and weak in variants with fewer rounds.
class ZARIP_EXPORT Blowfish : public GCryptCipher {
public:
    explicit Blowfish(Mode mode, Padding padding = kNoPadding);
};

/// Keys of 16 or 32 bytes, blocks of 16.
class ZARIP_EXPORT Twofish : public GCryptCipher {
public:
    explicit Twofish(Mode mode, Padding padding = kNoPadding);
};

}  // namespace zarip::crypto
