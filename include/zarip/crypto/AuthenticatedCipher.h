// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <zarip/crypto/SecureBuffer.h>

namespace zarip::crypto {

/// Keeps a message secret and shows whether somebody has changed it, in one call. This is what to take for
/// data of one's own; the ciphers in `Ciphers.h` are for formats that others have laid down. *Thread-safe*,
/// except for destruction.
///
/// A sealed message is a nonce of 12 bytes, the encrypted message and a tag of 16 bytes. The nonce is random
/// and new for each message: nobody has to think of one, and a message that is sealed twice looks different.
/// A key is good for 4,000,000,000 messages, after which two might get the same nonce.
class ZARIP_EXPORT AuthenticatedCipher {
public:
    enum Algorithm {
        kAES256GCM,         ///< fast if the processor has instructions for it
        kChaCha20Poly1305,  ///< fast on any processor, the device's included
    };
    static constexpr unsigned int kKeySize = 32;
    static constexpr unsigned int kNonceSize = 12;
    static constexpr unsigned int kTagSize = 16;

    /// How much longer a message is when it is sealed.
    static constexpr unsigned int kOverhead = kNonceSize + kTagSize;

    /// @param key  a copy is kept. Make one with `CryptoUtils::GenerateKey`, or of a pass phrase with
    /// `CryptoUtils::DeriveKey`. Throws `CryptoException` "invalid key length" unless it has `kKeySize`
    /// bytes.
    AuthenticatedCipher(Algorithm algorithm, const SecureBuffer& key);
    AuthenticatedCipher(const AuthenticatedCipher&) = delete;
    AuthenticatedCipher& operator=(const AuthenticatedCipher&) = delete;
    ~AuthenticatedCipher();

    /// Encrypts a message of any bytes.
    /// @param associated  is not encrypted and not in the result, but `Open` needs the same: what the message
    /// is for, a version, a name, so that no sealed message can be passed off as another. Throws
    /// `CryptoException` "message too long" for more than 4 GiB - 29 bytes.
    std::string Seal(std::string_view message, std::string_view associated = {}) const;
    std::string Seal(const SecureBuffer& message, std::string_view associated = {}) const;
    std::vector<unsigned char> Seal(const unsigned char* message, unsigned int length,
                                    const unsigned char* associated = nullptr,
                                    unsigned int associatedLength = 0) const;

    /// Decrypts what `Seal` has made. Throws `CryptoException` "authentication failed", whatever is wrong:
    /// another key, other associated data, a changed or shortened message. Nothing of the message is returned
    /// then.
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
