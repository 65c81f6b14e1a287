// SPDX-License-Identifier: MIT

#pragma once

namespace zarip::interfaces {

/// How a service is addressed on the bus, and what it says of itself there. The function
/// `zarip_add_interface` of the CMake package makes a constant of this type from an introspection file.
///
/// The strings are *not owned* and must outlive what is made with them; literals do.
struct ServiceDescription {
    const char* name;      ///< the well-known name on the bus, which is also the name of the interface
    const char* path;      ///< of its one object
    const char* xml = "";  ///< the element "interface" of the introspection format
};

}  // namespace zarip::interfaces
