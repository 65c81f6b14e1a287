// SPDX-License-Identifier: MIT

#pragma once

#include <dbus/dbus.h>

#include <memory>
#include <string>

#include <zarip/msgbus/MsgBus.h>
#include <zarip/msgbus/MsgBusMsg.h>
#include <zarip/msgbus/MsgBusMsgArgumentReader.h>
#include <zarip/msgbus/MsgBusObjectSelector.h>
#include <zarip/msgbus/MsgBusRemoteMethod.h>

#include "Commands.h"

namespace bus {

/// The default time limit of a call.
constexpr int kCallTimeoutMs = 5'000;

using Message = std::unique_ptr<zarip::msgbus::MsgBusMsg>;

/// Calls and waits for the reply. Throws a different `Failure` for a time-out than for other errors.
Message Send(zarip::msgbus::MsgBus& bus, const zarip::msgbus::MsgBusMsg& message, int timeoutMs);

/// Calls the bus daemon.
template <class Result, class... Arguments>
Result AskBus(zarip::msgbus::MsgBus& bus, const char* member, const Arguments&... argument) {
    const zarip::msgbus::MsgBusObjectSelector daemon(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS);
    zarip::msgbus::MsgBusRemoteMethod message(daemon, member);
    (void)(static_cast<zarip::msgbus::MsgBusMsg&>(message) << ... << argument);
    Result result{};
    zarip::msgbus::MsgBusMsgArgumentReader(*Send(bus, message, kCallTimeoutMs)) >> result;
    return result;
}

/// Returns the well-known names on the bus, sorted.
Strings GetNames(zarip::msgbus::MsgBus& bus);

/// Finds the name for a SERVICE on the command line: the name itself, or the only name that ends with a dot
/// and SERVICE, among the names on the bus and of the camera's services. Returns SERVICE if there is no such
/// name. Throws if there are several.
/// @param names  the names on the bus.
std::string Resolve(const Strings& names, const std::string& service);

/// Does the same and throws if the service is not on the bus.
std::string Require(zarip::msgbus::MsgBus& bus, const std::string& service);

/// Throws unless SERVICE can be a name or the end of a name.
void CheckService(const std::string& service);

/// Returns the path of the object of a service.
zarip::msgbus::MsgBusObjectSelector ObjectOf(const std::string& service, const std::string& interface);

}  // namespace bus
