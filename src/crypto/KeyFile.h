// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include "zarip/crypto/SecureBuffer.h"

namespace zarip::crypto {

// Files with private keys, which only their owners may open.

/// Writes or replaces a file, with mode 0600. Throws `osa::IOException` "Couldn't write '...'".
void WriteKeyFile(const std::string& path, const SecureBuffer& content);

/// Reads at most 64 KiB and a byte, which is more than a key may have. Throws `CryptoException` "key file
/// '...' is open to others" and `osa::IOException` "Couldn't read '...'".
SecureBuffer ReadKeyFile(const std::string& path);

}  // namespace zarip::crypto
