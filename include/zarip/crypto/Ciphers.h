// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <zarip/crypto/SecureBuffer.h>

namespace zarip::crypto {

/// A block cipher, for existing formats; use `AuthenticatedCipher` for your own data. *One thread at a time.*
/// All errors are `CryptoException`s.
///
/// States: *without a key* at first; *in a message* after `Init` or `Reset`, when `Update` may be called any
/// number of times; *finished* after `DoFinal`, until `Reset` or `Init` starts the next message.
class ZARIP_EXPORT Cipher {
public:
    enum Mode {
        kECB,  ///< encrypts each block separately: equal blocks stay equal
        kCBC,
        kCTR,  ///< a stream of any length; never use a vector twice with the same key
        kCFB   ///< a stream of any length
    };
    enum Padding {
        kNoPadding,    ///< ECB and CBC then require whole blocks
        kPKCS7Padding  ///< adds from 1 byte to a whole block, in every mode
    };
    enum Direction { kEncrypt, kDecrypt };

    Cipher() = default;
    Cipher(const Cipher&) = delete;
    Cipher& operator=(const Cipher&) = delete;
    virtual ~Cipher();

    /// Returns "AES", "DES", "3DES", "Blowfish" or "Twofish".
    virtual const char* GetAlgorithmName() const = 0;

    /// Returns the size of a block in bytes.
    virtual unsigned int GetBlockSize() const = 0;

    /// Starts a message, in any state. Throws "null key", "invalid key length", "weak key", "null vector" or
    /// "invalid vector length"; then the object does not change.
    /// @param vector  the initialisation vector or the first value of the counter, which has the size of a
    ///     block; null with ECB.
    virtual void Init(Direction direction, const unsigned char* key, unsigned int keyLength,
                      const unsigned char* vector = nullptr, unsigned int vectorLength = 0) = 0;

    /// Starts again with the same key and vector, for decrypting again and for ECB. Two messages that were
    /// encrypted with the same vector reveal what they have in common. So encrypting in another mode than ECB
    /// throws "another message needs another vector". Throws "cipher has no key" before `Init`.
    virtual void Reset() = 0;

    /// Starts another message with the same key.
    virtual void Reset(const unsigned char* vector, unsigned int vectorLength) = 0;

    /// Returns the maximum number of bytes that an `Update` with `length` bytes and the following `DoFinal`
    /// write together.
    virtual unsigned long long GetOutputSize(unsigned int length) const = 0;

    /// Processes a part of the message. Does nothing if `data` is null or `length` is 0. In a stream mode
    /// (CTR or CFB without padding), all bytes are written at once. Otherwise bytes wait until they fill a
    /// block, and when decrypting with padding the last block waits for `DoFinal`. Throws "cipher has no
    /// key", "cipher is finished" after `DoFinal`, "null output buffer", "invalid buffer length" or
    /// "overlapping buffers"; then nothing was processed.
    /// @param out  may be equal to `data`, unless bytes of an earlier call wait for the rest of their block.
    /// @param size  the size of `out` in bytes; `length` plus the size of a block always suffices.
    /// @return the number of bytes written.
    virtual unsigned int Update(const unsigned char* data, unsigned int length, unsigned char* out,
                                unsigned int size) = 0;

    /// Ends the message; `Reset` or `Init` starts the next one. Throws what `Update` throws. Throws
    /// "incomplete block" if the data are not whole blocks. Throws "invalid padding" in most but not all
    /// cases of a wrong key or changed data; to be certain, check an `Hmac` first. The time that this takes
    /// does not depend on the fault in the padding. After these two errors the message has ended.
    /// @param size  the size of `out` in bytes. With padding it must be at least a block, even if less is
    ///     written; otherwise `out` may be null.
    /// @return the number of bytes written.
    virtual unsigned int DoFinal(unsigned char* out, unsigned int size) = 0;

    /// These functions do the same with strings of bytes; `Finish` calls `DoFinal` and returns the rest.
    /// Strings are not wiped when they are destroyed, so use the functions above and a `SecureBuffer` for
    /// secrets.
    void Init(Direction direction, const SecureBuffer& key, std::string_view vector = {});
    void Reset(std::string_view vector);
    std::string Update(std::string_view data);
    std::string Finish();
};

struct CipherFamily;
struct GCryptCipherImpl;

/// A cipher of libgcrypt. Keys are kept in secure memory (see `SecureBuffer`).
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

/// Keys of 16, 24 or 32 bytes; blocks of 16.
class ZARIP_EXPORT AES : public GCryptCipher {
public:
    explicit AES(Mode mode, Padding padding = kNoPadding);
};

/// Keys and blocks of 8 bytes; for old data only. Parity bits are ignored. The published weak and semi-weak
/// keys are refused, because encrypting twice with them decrypts.
class ZARIP_EXPORT DES : public GCryptCipher {
public:
    explicit DES(Mode mode, Padding padding = kNoPadding);
};

/// Keys of 24 bytes, or of 16 bytes whose first third is also used as the last; blocks of 8. For old data
/// only. Keys are refused as weak if they contain a weak DES key, or if the second third equals the first or
/// the last, which would be plain DES.
class ZARIP_EXPORT TripleDES : public GCryptCipher {
public:
    explicit TripleDES(Mode mode, Padding padding = kNoPadding);
};

/// Keys of 4 to 56 bytes, blocks of 8; for old data only. No key is refused as weak. One key in 32768 is
/// called weak, but only for variants with fewer rounds.
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
