// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <vector>

#include <zarip/osa/Export.h>

namespace zarip::interfaces {

class InterfaceServer;

/// Compares the description of a service with the table of its server adapter. A test of the service expects
/// an empty string; otherwise each line names one mismatch: a member or signal that is in one of the two
/// only or twice, another signature of its arguments or results, a one-way member that is described as one
/// that replies or the reverse, arguments without names or directions, a property, which no server has, and a
/// description that is not XML.
///
/// Signatures are those of default-constructed values. The argument of a member that can only be read from a
/// message, and not appended to one, has the signature "?".
/// @param server  derives from `ServiceServer`; throws `osa::Exception` for another one.
/// @param leftOut  members that are served on purpose without being described, such as one whose signature
///     varies.
ZARIP_EXPORT std::string CheckDescription(const InterfaceServer& server,
                                          const std::vector<std::string>& leftOut = {});

}  // namespace zarip::interfaces
