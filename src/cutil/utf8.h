// SPDX-License-Identifier: MIT

#pragma once

#include <string_view>

namespace zarip::cutil {

constexpr unsigned int kNoCharacter = 0xFFFFFFFF;

/// Removes the first character from a UTF-8 string that is not empty. For bytes that are not UTF-8 it returns
/// `kNoCharacter` and removes nothing. Forms that are longer than needed, surrogates (U+D800 to U+DFFF),
/// characters above U+10FFFF and incomplete ones are not UTF-8.
unsigned int utf8_take(std::string_view& text);

}  // namespace zarip::cutil
