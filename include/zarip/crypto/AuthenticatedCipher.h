// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <zarip/crypto/SecureBuffer.h>

namespace zarip::crypto {

/// Encrypts a message and protects it against changes, in one call. Use it for your own data; the ciphers in
/// `Ciphers.h` are for existing formats. *Thread-safe*, except for destruction.
///
/// A sealed message consists of a nonce of 12 bytes, the encrypted message and a tag of 16 bytes. Each call
/// generates a random nonce, so the same message looks different when it is sealed again. Use a key for at
/// most 4,000,000,000 messages; with more, two of them might get the same nonce.
class ZARIP_EXPORT AuthenticatedCipher {
public:
    enum Algorithm {
        kAES256GCM,         ///< fast if the processor has instructions for it
        kChaCha20Poly1305,  ///< fast on any processor, the device's included
    };
    static constexpr unsigned int kKeySize = 32;
    static constexpr unsigned int kNonceSize = 12;
    static constexpr unsigned int kTagSize = 16;

    /// The number of bytes by which sealing makes a message longer.
    static constexpr unsigned int kOverhead = kNonceSize + kTagSize;

    /// Throws `CryptoException` "invalid key length" unless the key has `kKeySize` bytes.
    /// @param key  is copied. Make it with `CryptoUtils::GenerateKey`, or from a pass phrase with
    ///     `CryptoUtils::DeriveKey`.
    AuthenticatedCipher(Algorithm algorithm, const SecureBuffer& key);
    AuthenticatedCipher(const AuthenticatedCipher&) = delete;
    AuthenticatedCipher& operator=(const AuthenticatedCipher&) = delete;
    ~AuthenticatedCipher();

    /// Encrypts a message of any bytes. Throws `CryptoException` "message too long" for more than
    /// `4 GiB - 29` bytes.
    /// @param associated  is neither encrypted nor contained in the result, but `Open` needs the same value.
    ///     Pass for example the purpose of the message, a version or a name, so that an attacker cannot
    ///     replace a sealed message by one with another purpose.
    std::string Seal(std::string_view message, std::string_view associated = {}) const;
    std::string Seal(const SecureBuffer& message, std::string_view associated = {}) const;
    std::vector<unsigned char> Seal(const unsigned char* message, unsigned int length,
                                    const unsigned char* associated = nullptr,
                                    unsigned int associatedLength = 0) const;

    /// Decrypts a sealed message. Throws `CryptoException` "authentication failed" for every fault: a
    /// different key, different associated data, a changed or shortened message. Then no part of the message
    /// is returned.
    SecureBuffer Open(std::string_view sealed, std::string_view associated = {}) const;
    SecureBuffer Open(const unsigned char* sealed, unsigned int length,
                      const unsigned char* associated = nullptr, unsigned int associatedLength = 0) const;

private:
    void SealTo(unsigned char* out, const unsigned char* message, unsigned int length,
                std::string_view associated) const;

    Algorithm _algorithm;
    SecureBuffer _key;
};

}  // namespace zarip::crypto
