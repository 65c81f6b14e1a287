#include "msgbus/DescribedObject.h"

#include <dbus/dbus.h>

#include <algorithm>
#include <memory>
#include <set>
#include <vector>

#include "msgbus/MsgBusMsgImpl.h"
#include "zarip/msgbus/IMsgBus.h"
#include "zarip/msgbus/MsgBusMsg.h"
#include "zarip/osa/Mutex.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::msgbus {

namespace {

/// What every object has: libdbus answers the one and `AnswerIntrospect` the other.
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

std::string Document(const std::set<std::string_view>& interfaces, const std::set<std::string>& children) {
    std::string document = DBUS_INTROSPECT_1_0_XML_DOCTYPE_DECL_NODE;
    document += "<node>\n";
    document += kOwnInterfaces;
    for (const auto interface : interfaces) {
        document += interface;
    }
    for (const auto& child : children) {
        document += "  <node name=\"" + child + "\"/>\n";
    }
    return document + "</node>\n";
}

}  // namespace

DescribedObject::DescribedObject(const IMsgBus* bus, const char* path, std::string_view interface)
    : _bus(bus), _path(path), _interface(interface) {
    Registry& registry = GetRegistry();
    const osa::MutexAutoLock lock(&registry.mutex);
    registry.objects.push_back(this);
}

DescribedObject::~DescribedObject() {
    Registry& registry = GetRegistry();
    const osa::MutexAutoLock lock(&registry.mutex);
    registry.objects.erase(std::find(registry.objects.begin(), registry.objects.end(), this));
}

bool AnswerIntrospect(const MsgBusMsg& call, IMsgBus& bus) {
    if (dbus_message_is_method_call(call.GetDBusMessage(), DBUS_INTERFACE_INTROSPECTABLE, "Introspect") ==
        FALSE) {
        return false;
    }
    const std::string path = call.GetPath();
    const std::string above = path == "/" ? path : path + "/";
    bool isOurs = false;
    std::set<std::string_view> interfaces;  // two servers of one service describe it once
    std::set<std::string> children;
    {
        Registry& registry = GetRegistry();
        const osa::MutexAutoLock lock(&registry.mutex);
        for (const DescribedObject* object : registry.objects) {
            if (object->_bus != &bus) {
                continue;
            }
            isOurs = true;
            if (object->_path == path) {
                interfaces.insert(object->_interface);
            } else if (object->_path.compare(0, above.size(), above) == 0) {
                children.insert(
                    object->_path.substr(above.size(), object->_path.find('/', above.size()) - above.size()));
            }
        }
    }
    if (isOurs && call.IsExpectingResponse()) {
        std::unique_ptr<MsgBusMsg> reply;
        if (interfaces.empty() && children.empty()) {
            reply = std::make_unique<MsgBusMsg>(new MsgBusMsgImpl(
                dbus_message_new_error_printf(call.GetDBusMessage(), DBUS_ERROR_UNKNOWN_OBJECT,
                                              "There is no object %s", path.c_str()),
                true));
        } else {
            reply.reset(call.MakeReplyMsg());
            *reply << Document(interfaces, children);
        }
        bus.SendReply(*reply);
    }
    return isOurs;
}

}  // namespace zarip::msgbus
