// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Export.h>

namespace zarip::crypto {

/// MD5 digests as 32 lower-case hexadecimal characters, for checksums only: anyone can make data with a given
/// checksum. *Thread-safe.* All functions throw `CryptoException` if MD5 is not available. The functions for
/// files throw `osa::Exception` "File '<path>' does not exist" if the file cannot be read, and "File '<path>'
/// is a pipe or a device" because reading it might never end.
class ZARIP_EXPORT DigestUtils {
public:
    DigestUtils() = delete;

    static std::string GenerateMd5(const std::string& data);

    /// Reads the file in blocks, so the memory does not depend on its size.
    static std::string GenerateFileMd5(const std::string& path);

    /// Returns whether the digest is `expected`. Deliberate: upper-case letters in `expected` do not match,
    /// so that each digest has one spelling. The time that this takes does not depend on how much of
    /// `expected` is right.
    static bool ValidateMd5(const std::string& expected, const std::string& data);
    static bool ValidateFileMd5(const std::string& expected, const std::string& path);
};

}  // namespace zarip::crypto
