// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "zarip/msgbus/DescribedObject.h"
#include "zarip/osa/Mutex.h"

namespace zarip::msgbus {

/// The described objects of all connections of the process. *Thread-safe*; its mutex is a leaf.
class DescribedObjects {
public:
    static DescribedObjects& Get();

    void Add(const DescribedObject::Entry* entry);
    void Remove(const DescribedObject::Entry* entry);

    /// Where a call of an interface may go.
    enum class Place {
        kAnywhere,  ///< no object of the connection describes the interface
        kServed,    ///< an object at this path does
        kElsewhere  ///< only objects at other paths do
    };
    Place Find(const IMsgBus& bus, std::string_view path, std::string_view interface);

    /// Whether the connection has described objects, but none at the path or below it.
    bool IsUnknown(const IMsgBus& bus, const std::string& path) { return Describe(bus, path).empty(); }

    /// What Introspect answers at the path; empty if the path is unknown.
    std::string Describe(const IMsgBus& bus, const std::string& path);

private:
    osa::Mutex _mutex{"DescribedObject"};
    std::vector<const DescribedObject::Entry*> _entries ZARIP_GUARDED_BY(_mutex);
};

}  // namespace zarip::msgbus
