// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <vector>

#include <zarip/crypto/SecureBuffer.h>

namespace zarip::crypto {

struct RsaKeyImpl;

/// The digest of a signature or a padding.
enum class RsaHash { kSHA1, kSHA256, kSHA384, kSHA512 };

/// The padding of a message before it is encrypted.
enum class RsaEncryption {
    kPKCS1,       ///< version 1.5, for old peers: never reveal to a peer whether decrypting failed
    kOAEPSHA1,    ///< MGF1 uses the same digest; the label is empty
    kOAEPSHA256,  ///< MGF1 uses the same digest; the label is empty
};

enum class RsaSignature {
    kPKCS1,  ///< version 1.5
    kPSS,  ///< MGF1 uses the same digest; the salt has the length of the digest, or any length when verifying
};

/// A public key, which encrypts and verifies. `KeyFactory` makes and loads keys. Copies share the key.
/// *Thread-safe*, except for assignment.
class ZARIP_EXPORT RsaPublicKey {
public:
    explicit RsaPublicKey(std::shared_ptr<const RsaKeyImpl> impl);
    RsaPublicKey(const RsaPublicKey& other);
    RsaPublicKey& operator=(const RsaPublicKey& other);
    ~RsaPublicKey();

    /// Returns the number of bits of the modulus.
    unsigned int GetBits() const;

    /// Returns the size of the modulus in bytes, which is also the size of signatures and of the result of
    /// `Encrypt`.
    unsigned int GetSize() const;

    /// Returns the size of the longest message that `Encrypt` accepts, in bytes.
    unsigned int GetMaxMessageSize(RsaEncryption encryption) const;

    /// Encrypts a message. Throws `CryptoException` "no data" if it is empty, or "data too long for the key".
    std::vector<unsigned char> Encrypt(RsaEncryption encryption, const void* data, unsigned int length) const;

    /// Returns whether the holder of the private key has signed exactly these data. Returns false also if
    /// `signature` is not a signature at all or the key is too short for the digest.
    bool Verify(RsaSignature kind, RsaHash hash, const void* data, unsigned int length,
                const unsigned char* signature, unsigned int signatureLength) const;

    /// Does the same for a digest of the data. Throws `CryptoException` "invalid digest length".
    bool VerifyDigest(RsaSignature kind, RsaHash hash, const unsigned char* digest, unsigned int digestLength,
                      const unsigned char* signature, unsigned int signatureLength) const;

    const RsaKeyImpl& GetImpl() const { return *_impl; }

private:
    std::shared_ptr<const RsaKeyImpl> _impl;
};

/// A private key, which decrypts and signs. Copies share the key, which is in secure memory. *Thread-safe*,
/// except for assignment.
///
/// When it decrypts or signs, libgcrypt copies the key to ordinary memory and frees that without wiping it.
/// Code that can read the memory of the process afterwards can find the key.
class ZARIP_EXPORT RsaPrivateKey {
public:
    explicit RsaPrivateKey(std::shared_ptr<const RsaKeyImpl> impl);
    RsaPrivateKey(const RsaPrivateKey& other);
    RsaPrivateKey& operator=(const RsaPrivateKey& other);
    ~RsaPrivateKey();

    unsigned int GetBits() const;
    unsigned int GetSize() const;
    RsaPublicKey GetPublicKey() const;

    /// Decrypts a message. Throws `CryptoException` "decryption failed" for every fault in the data.
    SecureBuffer Decrypt(RsaEncryption encryption, const unsigned char* data, unsigned int length) const;

    /// Signs data. Throws `CryptoException` "key too short for the digest", for example with PSS and SHA-512
    /// for a key of 1024 bits.
    std::vector<unsigned char> Sign(RsaSignature kind, RsaHash hash, const void* data,
                                    unsigned int length) const;

    /// Does the same for a digest of the data. Also throws `CryptoException` "invalid digest length".
    std::vector<unsigned char> SignDigest(RsaSignature kind, RsaHash hash, const unsigned char* digest,
                                          unsigned int digestLength) const;

    const RsaKeyImpl& GetImpl() const { return *_impl; }

private:
    std::shared_ptr<const RsaKeyImpl> _impl;
};

}  // namespace zarip::crypto
