// SPDX-License-Identifier: MIT

#pragma once

#include <string_view>

#include "zarip/inet/InetBase.h"

namespace zarip::inet {

/// Parses addresses such as "1.2.3.4:80" and "::1/80". The port follows the last '/' or the only ':'. A field
/// stays empty if the address is too long for it.
_ipaddr_t ParseAddress(std::string_view text);

/// Replaces both addresses of the record; the port stays.
void SetAddressTexts(std::string_view ipv4, std::string_view ipv6, _ipaddr_t& out);

/// Parses the digits at the beginning of the text, truncated to 16 bits.
unsigned short ParsePort(std::string_view text);

}  // namespace zarip::inet
