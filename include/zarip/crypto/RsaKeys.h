// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <vector>

#include <zarip/crypto/SecureBuffer.h>

namespace zarip::crypto {

struct RsaKeyImpl;

/// The digest within a signature or a padding.
enum class RsaHash { kSHA1, kSHA256, kSHA384, kSHA512 };

/// How a message is made as long as the key before it is encrypted.
enum class RsaEncryption {
    kPKCS1,       ///< version 1.5, for old peers: never tell a peer whether decrypting failed
    kOAEPSHA1,    ///< MGF1 has the same digest, the label is empty
    kOAEPSHA256,  ///< the same
};

enum class RsaSignature {
    kPKCS1,  ///< version 1.5
    kPSS,    ///< MGF1 has the same digest; the salt is as long as that, and of any length when verifying
};

/// Encrypts and verifies. Copies share the key. *Thread-safe*, except for assignment. `KeyFactory` makes and
/// loads them.
class ZARIP_EXPORT RsaPublicKey {
public:
    explicit RsaPublicKey(std::shared_ptr<const RsaKeyImpl> impl);
    RsaPublicKey(const RsaPublicKey& other);
    RsaPublicKey& operator=(const RsaPublicKey& other);
    ~RsaPublicKey();

    /// Of the modulus.
    unsigned int GetBits() const;

    /// In bytes, what `Encrypt` and signatures take up.
    unsigned int GetSize() const;

    /// The longest message that `Encrypt` takes, in bytes.
    unsigned int GetMaxMessageSize(RsaEncryption encryption) const;

    /// Throws `CryptoException`: "no data" for an empty message, "data too long for the key".
    std::vector<unsigned char> Encrypt(RsaEncryption encryption, const void* data, unsigned int length) const;

    /// Whether the holder of the private key has signed just these data. What is no signature at all is
    /// false, too, and so is everything if the key is too short for the digest.
    bool Verify(RsaSignature kind, RsaHash hash, const void* data, unsigned int length,
                const unsigned char* signature, unsigned int signatureLength) const;

    /// The same for a digest made before; throws `CryptoException` "invalid digest length".
    bool VerifyDigest(RsaSignature kind, RsaHash hash, const unsigned char* digest, unsigned int digestLength,
                      const unsigned char* signature, unsigned int signatureLength) const;

    const RsaKeyImpl& GetImpl() const { return *_impl; }

private:
    std::shared_ptr<const RsaKeyImpl> _impl;
};

/// Decrypts and signs. Copies share the key, which is in secure memory. *Thread-safe*, except for assignment.
///
/// To decrypt or to sign, libgcrypt copies the key to ordinary memory, which it frees without wiping it: what
/// reads the memory of the process afterwards can find the key.
class ZARIP_EXPORT RsaPrivateKey {
public:
    explicit RsaPrivateKey(std::shared_ptr<const RsaKeyImpl> impl);
    RsaPrivateKey(const RsaPrivateKey& other);
    RsaPrivateKey& operator=(const RsaPrivateKey& other);
    ~RsaPrivateKey();

    unsigned int GetBits() const;
    unsigned int GetSize() const;
    RsaPublicKey GetPublicKey() const;

    /// Throws `CryptoException` "decryption failed", whatever is wrong with the data.
    SecureBuffer Decrypt(RsaEncryption encryption, const unsigned char* data, unsigned int length) const;

    /// Throws `CryptoException` "key too short for the digest": PSS with SHA-512 does not fit 1024 bits.
    std::vector<unsigned char> Sign(RsaSignature kind, RsaHash hash, const void* data,
                                    unsigned int length) const;

    /// The same for a digest made before; throws `CryptoException` "invalid digest length", too.
    std::vector<unsigned char> SignDigest(RsaSignature kind, RsaHash hash, const unsigned char* digest,
                                          unsigned int digestLength) const;

    const RsaKeyImpl& GetImpl() const { return *_impl; }

private:
    std::shared_ptr<const RsaKeyImpl> _impl;
};

}  // namespace zarip::crypto
