// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Export.h>

namespace zarip::crypto {

/// MD5 digests as 32 lower-case hexadecimal characters, for checksums; they prove nothing about who made the
/// data. *Thread-safe.* All throw `CryptoException` where MD5 is not to be had, and those for files
/// `osa::Exception` "File '<path>' does not exist" for a file that cannot be read, and "File '<path>' is a
/// pipe or a device" for one that might have no end.
class ZARIP_EXPORT DigestUtils {
public:
    DigestUtils() = delete;

    static std::string GenerateMd5(const std::string& data);

    /// Reads the file in blocks, so its size does not matter.
    static std::string GenerateFileMd5(const std::string& path);

    /// Deliberate: letters of `expected` in upper case do not match, so that each digest has one spelling.
    /// The time it takes does not tell how much of `expected` was right.
    static bool ValidateMd5(const std::string& expected, const std::string& data);
    static bool ValidateFileMd5(const std::string& expected, const std::string& path);
};

}  // namespace zarip::crypto
