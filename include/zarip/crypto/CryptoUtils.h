// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/crypto/SecureBuffer.h>

namespace zarip::crypto {

/// Small operations that are easy to get wrong. *Thread-safe.*
class ZARIP_EXPORT CryptoUtils {
public:
    CryptoUtils() = delete;

    /// Fills `out` with unpredictable random bytes, for keys, salts and vectors.
    static void Randomize(unsigned char* out, unsigned int length);

    /// Makes a buffer of random bytes.
    static SecureBuffer GenerateKey(unsigned int length);

    /// Returns whether the bytes are equal. The time that this takes does not depend on how many of them are.
    static bool AreEqual(const void* a, const void* b, unsigned int length) noexcept;

    /// Overwrites memory with zeros. The compiler does not remove this.
    static void Wipe(void* data, unsigned int length) noexcept;

    /// Derives a key from a pass phrase with PBKDF2 and HMAC-SHA256. Throws `CryptoException` "empty pass
    /// phrase", "empty salt", "salt too short", "no iterations" or "too few iterations", and "invalid key
    /// length" for 0.
    /// @param salt  at least 16 random bytes, which are stored with the protected data.
    /// @param iterations  at least 10,000; use 200,000 or more for secrets. The time of each attempt, also an
    ///     attacker's, is proportional to it.
    /// @param keyLength  in bytes.
    static SecureBuffer DeriveKey(const void* passPhrase, unsigned int passPhraseLength, const void* salt,
                                  unsigned int saltLength, unsigned int iterations, unsigned int keyLength);

    /// Does the same with any salt and any number of iterations, for old data and existing formats. With few
    /// iterations an attacker can try a million pass phrases per second.
    static SecureBuffer DeriveWeakKey(const void* passPhrase, unsigned int passPhraseLength, const void* salt,
                                      unsigned int saltLength, unsigned int iterations,
                                      unsigned int keyLength);

    /// Derives a key from a pass phrase with scrypt and a block size of 8. It takes memory as well as time,
    /// which makes attacks with special hardware much more expensive. Throws `CryptoException` "empty pass
    /// phrase", "empty salt", "salt too short", "invalid cost" or "invalid key length", and `GCryptException`
    /// if there is not enough memory.
    /// @param salt  as in `DeriveKey`.
    /// @param cost  a power of two from 16,384 to 1,048,576; the function takes that many KiB of memory.
    /// @param parallelization  the number of passes, from 1 to 16, which run one after the other.
    static SecureBuffer DeriveKeyScrypt(const void* passPhrase, unsigned int passPhraseLength,
                                        const void* salt, unsigned int saltLength, unsigned int cost,
                                        unsigned int parallelization, unsigned int keyLength);
};

}  // namespace zarip::crypto
