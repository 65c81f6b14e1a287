// SPDX-License-Identifier: MIT

#pragma once

#include <string_view>

namespace zarip::core {

/// Throws `json::Exception` for a string that is not exactly one JSON document, or for a document that may be
/// too expensive to read.
///
/// The program may use an installed element model, whose parser may accept what is not JSON, or end the
/// process by recursion. So this check is our own. It has no recursion, reads the document once and keeps one
/// number for each level. It accepts JSON as defined by RFC 8259, in UTF-8, with at most 200 levels,
/// 1,000,000 elements, and 10,000 members in an object. The last limit exists because models compare each
/// name with all others. The model refuses two members of one name.
void CheckJson(std::string_view text);

}  // namespace zarip::core
