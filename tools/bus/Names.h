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

/// How long a call waits unless the user says otherwise.
constexpr int kCallTimeoutMs = 5'000;

using Message = std::unique_ptr<zarip::msgbus::MsgBusMsg>;

/// Calls and waits for the reply; tells a time-out from another failure.
Message Send(zarip::msgbus::MsgBus& bus, const zarip::msgbus::MsgBusMsg& message, int timeoutMs);

/// Calls the bus itself.
template <class Result, class... Arguments>
Result AskBus(zarip::msgbus::MsgBus& bus, const char* member, const Arguments&... argument) {
    const zarip::msgbus::MsgBusObjectSelector daemon(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS);
    zarip::msgbus::MsgBusRemoteMethod message(daemon, member);
    (void)(static_cast<zarip::msgbus::MsgBusMsg&>(message) << ... << argument);
    Result result{};
    zarip::msgbus::MsgBusMsgArgumentReader(*Send(bus, message, kCallTimeoutMs)) >> result;
    return result;
}

/// The well-known names on the bus, sorted.
Strings GetNames(zarip::msgbus::MsgBus& bus);

/// The name that a SERVICE on the command line means: that name itself, or the only one that ends in it after
/// a dot, on the bus or of the camera's services. SERVICE itself if no name does; throws if several do.
/// @param names  what is on the bus.
std::string Resolve(const Strings& names, const std::string& service);

/// The same for a service that has to be on the bus.
std::string Require(zarip::msgbus::MsgBus& bus, const std::string& service);

/// Throws unless SERVICE can be a name or the end of one.
void CheckService(const std::string& service);

/// The object of a service.
zarip::msgbus::MsgBusObjectSelector ObjectOf(const std::string& service, const std::string& interface);

}  // namespace bus
