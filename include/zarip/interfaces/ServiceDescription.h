// SPDX-License-Identifier: MIT

#pragma once

namespace zarip::interfaces {

/// The address of a service on the bus and its description. The function `zarip_add_interface` of the CMake
/// package makes a constant of this type from an introspection file.
///
/// The strings are *not owned* and must outlive all objects that are made with them, as literals do.
struct ServiceDescription {
    const char* name;      ///< the well-known name on the bus, which is also the name of the interface
    const char* path;      ///< the path of its only object
    const char* xml = "";  ///< the element "interface" of the introspection format
};

}  // namespace zarip::interfaces
