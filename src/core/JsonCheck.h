// SPDX-License-Identifier: MIT

#pragma once

#include <string_view>

namespace zarip::core {

/// Throws `json::Exception` for a text that is not one JSON document, or one that may cost too much to read.
///
/// The element model is not always ours, and one that is installed may accept what is not JSON, or end the
/// process by recursion. So this is our own, small and without recursion: it reads the text once and keeps
/// one number for each level. What it accepts is what RFC 8259 calls JSON, in UTF-8, with limits: 200 levels,
/// 1,000,000 elements, 10,000 members in an object, because models compare each name with all others. Two
/// members of one name are left to the model, which refuses them.
void CheckJson(std::string_view text);

}  // namespace zarip::core
