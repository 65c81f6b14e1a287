// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <zarip/osa/Export.h>

namespace zarip::msgbus {

class IMsgBus;

/// An object that a connection describes on the bus. While it exists, Introspect at its path returns the
/// interface, and Introspect at a parent path returns the names of the children. Calls of the interface at
/// other paths are refused. A `ServiceServer` contains one; programs only make their own for objects without
/// a `ServiceServer`.
///
/// *One thread at a time*, while the connection runs on its own threads.
class ZARIP_EXPORT DescribedObject {
public:
    /// @param bus  identifies the connection. It is *not owned* and never dereferenced.
    /// @param interface  the name of the interface.
    /// @param description  the element of the introspection format that describes the interface, or empty. It
    ///     is *not owned* and must outlive the object.
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
