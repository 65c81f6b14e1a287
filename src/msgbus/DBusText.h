// SPDX-License-Identifier: MIT

#pragma once

#include <string>

namespace zarip::msgbus {

// libdbus ends the process if it gets a string that it does not allow, so these functions check all strings
// first.

/// Returns whether the bus accepts the text up to its first zero byte as a string; false for null.
bool IsValidText(const char* text);

/// Replaces every byte that is not part of valid UTF-8 by '?' and truncates the string to 64 KiB. An error
/// message may contain several copies of what a caller has sent, and the bus closes the connection if a
/// message is too long.
std::string ToErrorText(const std::string& text);

bool IsValidBusName(const char* name);
bool IsValidPath(const char* path);
bool IsValidInterface(const char* name);
bool IsValidMember(const char* name);

}  // namespace zarip::msgbus
