// SPDX-License-Identifier: MIT

#pragma once

#include <string_view>

namespace zarip::cutil {

constexpr unsigned int kNoCharacter = 0xFFFFFFFF;

/// Takes the first character from a text in UTF-8, which is not empty. Returns `kNoCharacter`, and takes
/// nothing, for what is not UTF-8: longer forms than needed, surrogates (U+D800 to U+DFFF), what is beyond
/// U+10FFFF or cut off.
unsigned int utf8_take(std::string_view& text);

}  // namespace zarip::cutil
