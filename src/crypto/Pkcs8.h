// SPDX-License-Identifier: MIT

#pragma once

#include "crypto/Der.h"
#include "zarip/crypto/SecureBuffer.h"

namespace zarip::crypto {

// Encrypted private keys as PKCS #8 has them, with the scheme PBES2 of PKCS #5: a key is made of the pass
// phrase with PBKDF2, and AES in CBC mode encrypts with that.

/// Throws `CryptoException` "unsupported key" for another scheme, "invalid key encoding", and "wrong pass
/// phrase" if what comes out is no key.
SecureBytes DecryptPkcs8(ByteView der, const SecureBuffer& passPhrase);

/// With AES-256, HMAC-SHA256 and 200,000 iterations. Throws `CryptoException` "empty pass phrase".
SecureBytes EncryptPkcs8(ByteView info, const SecureBuffer& passPhrase);

}  // namespace zarip::crypto
