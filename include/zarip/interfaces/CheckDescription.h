// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <vector>

#include <zarip/osa/Export.h>

namespace zarip::interfaces {

class InterfaceServer;

/// Compares the description of a service with the table of its server adapter. Returns an empty string if
/// they agree, which a test of the service expects. Otherwise each line names one mismatch:
/// - a member or signal that only one of them has, or that one of them has twice,
/// - different signatures of arguments or results,
/// - a one-way member that is described as one that replies, or the reverse,
/// - an argument without a name or a direction,
/// - a property, because servers have no properties,
/// - a description that is not XML.
///
/// Signatures are those of default-constructed values. A type that can be read from a message but not
/// appended to one has the signature "?".
/// @param server  must derive from `ServiceServer`, otherwise this throws `osa::Exception`.
/// @param leftOut  the members that are deliberately not described, for example because their signature
///     varies.
ZARIP_EXPORT std::string CheckDescription(const InterfaceServer& server,
                                          const std::vector<std::string>& leftOut = {});

}  // namespace zarip::interfaces
