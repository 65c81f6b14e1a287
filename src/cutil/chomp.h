// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>

namespace zarip::cutil {

/// Removes the line end, "\n", "\r\n" or "\r", from the end of the string. The form with the length returns
/// the new length.
void chomp(char* text);
std::size_t chomp(char* text, std::size_t length);

}  // namespace zarip::cutil
