#pragma once

#include <optional>
#include <string_view>

#include "crypto/SecureBytes.h"

namespace zarip::crypto {

/// The bytes of the first PEM block of that label, or nothing where none begins. Throws `CryptoException`
/// "invalid PEM text", or "encrypted keys are not supported" for a block with headers that say so.
std::optional<SecureBytes> DecodePem(std::string_view text, std::string_view label);

SecureBytes EncodePem(const SecureBytes& bytes, std::string_view label);

}  // namespace zarip::crypto
