// SPDX-License-Identifier: MIT

#pragma once

#include <string>

namespace zarip::msgbus {

// The bus library ends the process over text that it does not allow, so all of it is looked at here first.

/// Whether the text up to its first zero byte is what the bus takes as a string; null is not.
bool IsValidText(const char* text);

/// The string with every byte that is not part of valid UTF-8 replaced by '?', and cut after 64 KiB: the text
/// of an error may hold what a caller sent, several times over, and the bus closes the connection over a
/// message that is too long.
std::string ToErrorText(const std::string& text);

bool IsValidBusName(const char* name);
bool IsValidPath(const char* path);
bool IsValidInterface(const char* name);
bool IsValidMember(const char* name);

}  // namespace zarip::msgbus
