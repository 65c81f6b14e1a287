// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "zarip/msgbus/DescribedObject.h"
#include "zarip/osa/Mutex.h"

namespace zarip::msgbus {

/// The described objects of all connections of the process. *Thread-safe*; no other lock is taken while its
/// mutex is held.
class DescribedObjects {
public:
    static DescribedObjects& Get();

    void Add(const DescribedObject::Entry* entry);
    void Remove(const DescribedObject::Entry* entry);

    /// Which paths serve calls of an interface.
    enum class Place {
        kAnywhere,  ///< no object of the connection describes the interface
        kServed,    ///< an object at this path describes it
        kElsewhere  ///< only objects at other paths describe it
    };
    Place Find(const IMsgBus& bus, std::string_view path, std::string_view interface);

    /// Returns whether the connection has described objects but none of them is at the path or below it.
    bool IsUnknown(const IMsgBus& bus, const std::string& path) { return Describe(bus, path).empty(); }

    /// Makes the document that Introspect returns at the path; empty if the path is unknown.
    std::string Describe(const IMsgBus& bus, const std::string& path);

private:
    osa::Mutex _mutex{"DescribedObject"};
    std::vector<const DescribedObject::Entry*> _entries ZARIP_GUARDED_BY(_mutex);
};

}  // namespace zarip::msgbus
