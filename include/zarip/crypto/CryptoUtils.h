#pragma once

#include <zarip/crypto/SecureBuffer.h>

namespace zarip::crypto {

/// Small things that are easily done wrong. *Thread-safe.*
class ZARIP_EXPORT CryptoUtils {
public:
    CryptoUtils() = delete;

    /// Fills `out` with random bytes that nobody can foretell: for keys, salts and vectors.
    static void Randomize(unsigned char* out, unsigned int length);

    /// The same as a new buffer.
    static SecureBuffer GenerateKey(unsigned int length);

    /// Whether the bytes are the same. The time it takes does not tell how many of them are.
    static bool AreEqual(const void* a, const void* b, unsigned int length) noexcept;

    /// Overwrites with zeros, which the compiler does not leave out.
    static void Wipe(void* data, unsigned int length) noexcept;

    /// A key from a pass phrase: PBKDF2 with HMAC-SHA256.
    /// @param salt  random and stored beside what the key protects; 16 bytes are usual
    /// @param iterations  the more, the longer every attempt takes, an attacker's as well
    /// @param keyLength  in bytes
    /// Throws `CryptoException`: "empty pass phrase", "empty salt", "no iterations", "invalid key length" for
    /// 0.
    static SecureBuffer DeriveKey(const void* passPhrase, unsigned int passPhraseLength, const void* salt,
                                  unsigned int saltLength, unsigned int iterations, unsigned int keyLength);
};

}  // namespace zarip::crypto
