// SPDX-License-Identifier: MIT

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
    /// @param salt  random and stored beside what the key protects; at least 16 bytes
    /// @param iterations  the more, the longer every attempt takes, an attacker's as well; at least 10,000,
    /// and 200,000 or more for what has to stay secret
    /// @param keyLength  in bytes
    /// Throws `CryptoException`: "empty pass phrase", "empty salt", "salt too short", "no iterations", "too
    /// few iterations", "invalid key length" for 0.
    static SecureBuffer DeriveKey(const void* passPhrase, unsigned int passPhraseLength, const void* salt,
                                  unsigned int saltLength, unsigned int iterations, unsigned int keyLength);

    /// The same with any salt and any number of iterations, for old data and for formats that others have
    /// laid down. An attacker tries a million pass phrases a second against few iterations.
    static SecureBuffer DeriveWeakKey(const void* passPhrase, unsigned int passPhraseLength, const void* salt,
                                      unsigned int saltLength, unsigned int iterations,
                                      unsigned int keyLength);

    /// A key from a pass phrase: scrypt with blocks of 8, which takes memory as well as time. That makes it
    /// much dearer for an attacker with special hardware, and for a device with little memory.
    /// @param salt  as above
    /// @param cost  a power of two from 16,384 to 1,048,576; it takes that many KiB of memory
    /// @param parallelization  from 1 to 16: how often that is done, one after the other
    /// Throws `CryptoException`: "empty pass phrase", "empty salt", "salt too short", "invalid cost",
    /// "invalid key length", and `GCryptException` if there is not enough memory.
    static SecureBuffer DeriveKeyScrypt(const void* passPhrase, unsigned int passPhraseLength,
                                        const void* salt, unsigned int saltLength, unsigned int cost,
                                        unsigned int parallelization, unsigned int keyLength);
};

}  // namespace zarip::crypto
