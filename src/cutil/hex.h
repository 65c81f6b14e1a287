// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <string>

namespace zarip::cutil {

/// Two lower-case characters for each byte.
std::string bin2hex(const unsigned char* bytes, std::size_t length);

}  // namespace zarip::cutil
