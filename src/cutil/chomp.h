// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>

namespace zarip::cutil {

/// Removes the line end, "\n" or "\r\n", from the end of the text; also a "\r" whose line feed is gone
/// already.
/// The form with the text's length gives the new one.
void chomp(char* text);
std::size_t chomp(char* text, std::size_t length);

}  // namespace zarip::cutil
