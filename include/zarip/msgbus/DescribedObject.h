// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <zarip/osa/Export.h>

namespace zarip::msgbus {

class IMsgBus;

/// An object that a connection describes. While it exists the connection answers Introspect at the path with
/// the interface, answers it at the parents of the path with what is below them, and refuses calls of the
/// interface at other paths. A `ServiceServer` has one; programs make their own only for objects without it.
///
/// *One thread at a time*, while the connection runs on its own threads.
class ZARIP_EXPORT DescribedObject {
public:
    /// @param bus  *not owned*; it is only compared, never used.
    /// @param interface  the name of the interface.
    /// @param description  its element of the introspection format, or empty; *not owned*, it must outlive
    ///     the object.
    DescribedObject(const IMsgBus* bus, const std::string& path, const std::string& interface,
                    std::string_view description);
    DescribedObject(const DescribedObject&) = delete;
    DescribedObject& operator=(const DescribedObject&) = delete;
    ~DescribedObject();

private:
    struct Entry;
    friend class DescribedObjects;
    std::unique_ptr<const Entry> _entry;
};

}  // namespace zarip::msgbus
