// SPDX-License-Identifier: MIT

#pragma once

#include <string_view>

#include "zarip/inet/InetBase.h"

namespace zarip::inet {

/// "1.2.3.4:80", "::1/80" and the like: the port stands behind the last '/' or behind a single ':'. A text
/// that does not fit its field stays empty.
_ipaddr_t ParseAddress(std::string_view text);

/// Both texts in place of what is in the record; the port stays.
void SetAddressTexts(std::string_view ipv4, std::string_view ipv6, _ipaddr_t& out);

/// The digits at the begin of the text, in 16 bits.
unsigned short ParsePort(std::string_view text);

}  // namespace zarip::inet
