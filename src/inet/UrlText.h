// SPDX-License-Identifier: MIT

#pragma once

#include <string>

namespace zarip::inet {

/// Does the same as `Url::Decode`, in place.
void DecodeUrl(std::string& text);

/// Throws what `Url::Decode` throws.
[[noreturn]] void ThrowUndecodable();

}  // namespace zarip::inet
