// SPDX-License-Identifier: MIT

#pragma once

#include <optional>
#include <string_view>

#include "crypto/SecureBytes.h"

namespace zarip::crypto {

/// The lines of a text between "-----BEGIN <label>-----" and "-----END <label>-----", *not owned*.
struct PemBlock {
    std::string_view label;
    std::string_view body;
};

/// Finds the first block whose label is `kind` or ends with a space and `kind`. Other blocks and text outside
/// of blocks are skipped. Throws `CryptoException` "invalid PEM text" if one of the blocks up to there does
/// not end with its own label.
std::optional<PemBlock> FindPem(std::string_view text, std::string_view kind);

/// Decodes a block. Throws `CryptoException` "invalid PEM text", or "encrypted keys are not supported" if its
/// headers declare encryption.
SecureBytes DecodePem(const PemBlock& block);

SecureBytes EncodePem(const SecureBytes& bytes, std::string_view label);

}  // namespace zarip::crypto
