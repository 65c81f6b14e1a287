// SPDX-License-Identifier: MIT

#pragma once

#include <dbus/dbus.h>

#include "msgbus/DBusHandles.h"
#include "msgbus/MessageDispatcher.h"

namespace zarip::msgbus {

/// Hands a call or signal to the handlers that take it, on the calling thread; a call of Introspect that
/// nobody takes is answered with the description of the object. False if nobody takes the message.
/// @param bus  the connection that has received it; handlers get it, and replies go to it.
bool RouteToHandlers(DBusMessage* message, MessageDispatcher& dispatcher, IMsgBus& bus);

/// The error reply to a call that nobody takes, as libdbus has it; empty if the message is not a call that
/// expects a reply.
MessageRef MakeRefusal(DBusMessage* message, const IMsgBus& bus);

/// An error reply; empty if the message is not a call that expects a reply.
MessageRef MakeRefusal(DBusMessage* message, const char* error, const std::string& text);

}  // namespace zarip::msgbus
