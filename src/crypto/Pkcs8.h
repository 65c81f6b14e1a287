// SPDX-License-Identifier: MIT

#pragma once

#include "crypto/Der.h"
#include "zarip/crypto/SecureBuffer.h"

namespace zarip::crypto {

// Encrypted private keys in PKCS #8 with the scheme PBES2 of PKCS #5: a key is derived from the pass
// phrase with PBKDF2, and AES in CBC mode encrypts with that.

/// Decrypts a key. Throws `CryptoException` "unsupported key" for another scheme, "invalid key encoding", and
/// "wrong pass phrase" if the result is not a key.
SecureBytes DecryptPkcs8(ByteView der, const SecureBuffer& passPhrase);

/// Encrypts a key with AES-256, HMAC-SHA256 and 200,000 iterations. Throws `CryptoException` "empty pass
/// phrase".
SecureBytes EncryptPkcs8(ByteView info, const SecureBuffer& passPhrase);

}  // namespace zarip::crypto
