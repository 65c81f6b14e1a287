#include "msgbus/DescribedObject.h"

#include <dbus/dbus.h>

#include <algorithm>
#include <set>
#include <vector>

#include "zarip/osa/Mutex.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::msgbus {

namespace {

/// What every object has; the connection answers both.
constexpr std::string_view kOwnInterfaces = R"xml(  <interface name="org.freedesktop.DBus.Introspectable">
    <method name="Introspect">
      <arg name="xml_data" type="s" direction="out"/>
    </method>
  </interface>
  <interface name="org.freedesktop.DBus.Peer">
    <method name="GetMachineId">
      <arg name="machine_uuid" type="s" direction="out"/>
    </method>
    <method name="Ping"/>
  </interface>
)xml";

/// The objects of all connections of the process; the mutex is a leaf.
struct Registry {
    osa::Mutex mutex{"DescribedObject"};
    std::vector<const DescribedObject*> objects ZARIP_GUARDED_BY(mutex);
};

Registry& GetRegistry() {
    static auto* const registry = new Registry;
    return *registry;
}

std::string Document(const std::set<std::string_view>& descriptions, const std::set<std::string>& children) {
    std::string document = DBUS_INTROSPECT_1_0_XML_DOCTYPE_DECL_NODE;
    document += "<node>\n";
    document += kOwnInterfaces;
    for (const auto description : descriptions) {
        document += description;
    }
    for (const auto& child : children) {
        document += "  <node name=\"" + child + "\"/>\n";
    }
    return document + "</node>\n";
}

}  // namespace

DescribedObject::DescribedObject(const IMsgBus* bus, const char* path, const char* interface,
                                 std::string_view description)
    : _bus(bus), _path(path), _name(interface), _description(description) {
    Registry& registry = GetRegistry();
    const osa::MutexAutoLock lock(&registry.mutex);
    registry.objects.push_back(this);
}

DescribedObject::~DescribedObject() {
    Registry& registry = GetRegistry();
    const osa::MutexAutoLock lock(&registry.mutex);
    registry.objects.erase(std::find(registry.objects.begin(), registry.objects.end(), this));
}

DescribedObject::Place DescribedObject::Find(const IMsgBus& bus, std::string_view path,
                                             std::string_view interface) {
    Place place = Place::kAnywhere;
    Registry& registry = GetRegistry();
    const osa::MutexAutoLock lock(&registry.mutex);
    for (const DescribedObject* object : registry.objects) {
        if (object->_bus == &bus && object->_name == interface) {
            if (object->_path == path) {
                return Place::kServed;
            }
            place = Place::kElsewhere;
        }
    }
    return place;
}

bool DescribedObject::IsUnknown(const IMsgBus& bus, std::string_view path) {
    return Describe(bus, std::string(path)).empty();
}

std::string DescribedObject::Describe(const IMsgBus& bus, const std::string& path) {
    const std::string above = path == "/" ? path : path + "/";
    bool isDescribed = false;
    std::set<std::string_view> descriptions;  // two servers of one service describe it once
    std::set<std::string> children;
    {
        Registry& registry = GetRegistry();
        const osa::MutexAutoLock lock(&registry.mutex);
        for (const DescribedObject* object : registry.objects) {
            if (object->_bus != &bus) {
                continue;
            }
            isDescribed = true;
            if (object->_path == path) {
                descriptions.insert(object->_description);
            } else if (object->_path.compare(0, above.size(), above) == 0) {
                children.insert(
                    object->_path.substr(above.size(), object->_path.find('/', above.size()) - above.size()));
            }
        }
    }
    if (!isDescribed) {
        // As libdbus answers for a connection that knows nothing of its objects.
        return std::string(DBUS_INTROSPECT_1_0_XML_DOCTYPE_DECL_NODE) + "<node>\n</node>\n";
    }
    return descriptions.empty() && children.empty() ? "" : Document(descriptions, children);
}

}  // namespace zarip::msgbus
