#pragma once

#include <string_view>

namespace zarip::interfaces {

/// The "interface" element of dbus/interfaces/<interface>.xml, empty where there is no such file. The build
/// makes the definition from those files.
std::string_view DescriptionOf(std::string_view interface);

}  // namespace zarip::interfaces
