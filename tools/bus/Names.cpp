// SPDX-License-Identifier: MIT

#include "Names.h"

#include <algorithm>
#include <chrono>
#include <set>

#include <zarip/osa/Exception.h>

#include "Failure.h"
#include "Output.h"

namespace bus {

using namespace zarip;
using Clock = std::chrono::steady_clock;

namespace {

/// The services of the camera, whose names are known even if they are not on the bus.
constexpr const char* kServices[] = {ZARIP_SERVICES};

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

Message Send(msgbus::MsgBus& bus, const msgbus::MsgBusMsg& message, int timeoutMs) {
    // libdbus counts whole milliseconds and may time out one too early.
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs - 1);
    msgbus::MsgBusMsg* reply = nullptr;
    try {
        bus.SendMsgWaitForReply(message, reply, timeoutMs);
    } catch (const osa::Exception& e) {
        if (Clock::now() < end) {
            throw Failure(kFailed, e.what());
        }
        throw Failure(kTimedOut, message.GetInterface() + "::" + message.GetName() +
                                     " has not answered within " + Shortest(timeoutMs / 1000.0) + " s");
    }
    return Message(reply);
}

Strings GetNames(msgbus::MsgBus& bus) {
    auto names = AskBus<Strings>(bus, "ListNames");
    names.erase(std::remove_if(names.begin(), names.end(), [](auto& name) { return name[0] == ':'; }),
                names.end());
    std::sort(names.begin(), names.end());
    return names;
}

std::string Resolve(const Strings& names, const std::string& service) {
    std::set<std::string> known(std::begin(kServices), std::end(kServices));
    known.insert(names.begin(), names.end());
    if (known.count(service) != 0) {
        return service;
    }
    std::string fitting;
    std::string candidates;
    for (const std::string& name : known) {
        if (EndsWith(name, "." + service)) {
            candidates += (fitting.empty() ? "" : ", ") + name;
            fitting = name;
        }
    }
    if (fitting != candidates) {
        throw Failure(kUsageError, "'" + service + "' could be each of " + candidates);
    }
    return fitting.empty() ? service : fitting;
}

std::string Require(msgbus::MsgBus& bus, const std::string& service) {
    const std::string name = Resolve(GetNames(bus), service);
    if (dbus_validate_bus_name(name.c_str(), nullptr) == FALSE || !AskBus<bool>(bus, "NameHasOwner", name)) {
        throw Failure(kNotThere, service + " is not on the bus");
    }
    return name;
}

void CheckService(const std::string& service) {
    if (dbus_validate_bus_name(("x." + service).c_str(), nullptr) == FALSE) {
        throw Failure(kUsageError, "'" + service + "' is not the name of a service");
    }
}

msgbus::MsgBusObjectSelector ObjectOf(const std::string& service, const std::string& interface) {
    std::string path = "/" + service;
    std::replace(path.begin(), path.end(), '.', '/');
    return {service, path, interface};
}

}  // namespace bus
