// SPDX-License-Identifier: MIT

#pragma once

#include <string>

namespace zarip::inet {

/// `Url::Decode` in place.
void DecodeUrl(std::string& text);

/// What `Url::Decode` throws.
[[noreturn]] void ThrowUndecodable();

}  // namespace zarip::inet
