// SPDX-License-Identifier: MIT

#pragma once

#include <optional>
#include <string_view>

#include "crypto/SecureBytes.h"

namespace zarip::crypto {

/// What stands between "-----BEGIN <label>-----" and "-----END <label>-----": lines of the text, *not owned*.
struct PemBlock {
    std::string_view label;
    std::string_view body;
};

/// The first block whose label is `kind`, or ends with a blank and `kind`; nothing if there is no such block.
/// Other blocks, and text outside of blocks, are skipped. Throws `CryptoException` "invalid PEM text" for a
/// block up to there that does not end with its own label.
std::optional<PemBlock> FindPem(std::string_view text, std::string_view kind);

/// The bytes of a block. Throws `CryptoException` "invalid PEM text", or "encrypted keys are not supported"
/// if its headers say so.
SecureBytes DecodePem(const PemBlock& block);

SecureBytes EncodePem(const SecureBytes& bytes, std::string_view label);

}  // namespace zarip::crypto
