// SPDX-License-Identifier: MIT

#pragma once

#include <dbus/dbus.h>

#include "msgbus/DBusHandles.h"
#include "msgbus/MessageDispatcher.h"

namespace zarip::msgbus {

/// Passes a call or signal to the handlers that take it, on the calling thread. If no handler takes a call of
/// Introspect, it is answered with the description of the object. Returns false if the message was not taken.
/// @param bus  the connection that has received the message; it is passed to the handlers and sends the
///     replies.
bool RouteToHandlers(DBusMessage* message, MessageDispatcher& dispatcher, IMsgBus& bus);

/// Makes the error reply to a call that no handler takes, with libdbus's message. Empty if the message is not
/// a call that expects a reply.
MessageRef MakeRefusal(DBusMessage* message, const IMsgBus& bus);

/// Makes an error reply. Empty if the message is not a call that expects a reply.
MessageRef MakeRefusal(DBusMessage* message, const char* error, const std::string& text);

}  // namespace zarip::msgbus
