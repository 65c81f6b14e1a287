// SPDX-License-Identifier: MIT

#include "msgbus/DescribedObjects.h"

#include <dbus/dbus.h>

#include <algorithm>
#include <set>

#include "zarip/osa/MutexAutoLock.h"

namespace zarip::msgbus {

namespace {

/// The interfaces of every object. The connection itself answers their calls.
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

std::string MakeDocument(const std::set<std::string_view>& descriptions,
                         const std::set<std::string>& children) {
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

struct DescribedObject::Entry {
    const IMsgBus* bus;
    std::string path;
    std::string name;
    std::string_view description;
};

DescribedObject::DescribedObject(const IMsgBus* bus, const std::string& path, const std::string& interface,
                                 std::string_view description)
    : _entry(new Entry{bus, path, interface, description}) {
    DescribedObjects::Get().Add(_entry.get());
}

DescribedObject::~DescribedObject() {
    DescribedObjects::Get().Remove(_entry.get());
}

DescribedObjects& DescribedObjects::Get() {
    // Never destroyed, because servers may exist until the process ends.
    static auto* const objects = new DescribedObjects;
    return *objects;
}

void DescribedObjects::Add(const DescribedObject::Entry* entry) {
    const osa::MutexAutoLock lock(&_mutex);
    _entries.push_back(entry);
}

void DescribedObjects::Remove(const DescribedObject::Entry* entry) {
    const osa::MutexAutoLock lock(&_mutex);
    _entries.erase(std::find(_entries.begin(), _entries.end(), entry));
}

DescribedObjects::Place DescribedObjects::Find(const IMsgBus& bus, std::string_view path,
                                               std::string_view interface) {
    Place place = Place::kAnywhere;
    const osa::MutexAutoLock lock(&_mutex);
    for (const DescribedObject::Entry* object : _entries) {
        if (object->bus == &bus && object->name == interface) {
            if (object->path == path) {
                return Place::kServed;
            }
            place = Place::kElsewhere;
        }
    }
    return place;
}

std::string DescribedObjects::Describe(const IMsgBus& bus, const std::string& path) {
    const std::string above = path == "/" ? path : path + "/";
    bool isDescribed = false;
    std::set<std::string_view> descriptions;  // a set, because two servers of one service describe it once
    std::set<std::string> children;
    {
        const osa::MutexAutoLock lock(&_mutex);
        for (const DescribedObject::Entry* object : _entries) {
            if (object->bus != &bus) {
                continue;
            }
            isDescribed = true;
            if (object->path == path) {
                descriptions.insert(object->description);
            } else if (object->path.compare(0, above.size(), above) == 0) {
                children.insert(
                    object->path.substr(above.size(), object->path.find('/', above.size()) - above.size()));
            }
        }
    }
    if (!isDescribed) {
        // This is libdbus's answer for a connection without described objects.
        return std::string(DBUS_INTROSPECT_1_0_XML_DOCTYPE_DECL_NODE) + "<node>\n</node>\n";
    }
    return descriptions.empty() && children.empty() ? "" : MakeDocument(descriptions, children);
}

}  // namespace zarip::msgbus
