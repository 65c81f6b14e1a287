// SPDX-License-Identifier: MIT

#include "msgbus/CallRouting.h"

#include <new>

#include "msgbus/DBusText.h"
#include "msgbus/DescribedObjects.h"
#include "msgbus/MsgBusMsgImpl.h"
#include "zarip/msgbus/IMsgBus.h"
#include "zarip/msgbus/MsgBusMsg.h"

namespace zarip::msgbus {

namespace {

/// Answers the call if it is Introspect and the path is known; returns whether that is the case.
bool AnswerIntrospect(const MsgBusMsg& call, IMsgBus& bus) {
    const std::string interface = call.GetInterface();
    if (call.GetName() != "Introspect" ||
        (!interface.empty() && interface != DBUS_INTERFACE_INTROSPECTABLE)) {
        return false;
    }
    const std::string document = DescribedObjects::Get().Describe(bus, call.GetPath());
    if (!document.empty() && call.IsExpectingResponse()) {
        const std::unique_ptr<MsgBusMsg> reply(call.MakeReplyMsg());
        *reply << document;
        bus.SendReply(*reply);
    }
    return !document.empty();
}

}  // namespace

bool RouteToHandlers(DBusMessage* message, MessageDispatcher& dispatcher, IMsgBus& bus) {
    const MsgBusMsg wrapped(new MsgBusMsgImpl(message));
    const std::string_view member = ViewOf(dbus_message_get_member(message));
    std::string_view interface = ViewOf(dbus_message_get_interface(message));
    if (dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_SIGNAL) {
        return dispatcher.Dispatch(wrapped, interface, member, true, bus);
    }
    std::string found;
    if (interface.empty()) {
        // The interface of a call is optional, and many clients omit it.
        found = dispatcher.FindInterface(member);
        interface = found;
    }
    if (DescribedObjects::Get().Find(bus, ViewOf(dbus_message_get_path(message)), interface) ==
        DescribedObjects::Place::kElsewhere) {
        return false;
    }
    return dispatcher.Dispatch(wrapped, interface, member, false, bus) || AnswerIntrospect(wrapped, bus);
}

MessageRef MakeRefusal(DBusMessage* message, const char* error, const std::string& text) {
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL ||
        dbus_message_get_no_reply(message) != FALSE) {
        return {};
    }
    MessageRef refusal = MessageRef::Adopt(dbus_message_new_error(message, error, ToErrorText(text).c_str()));
    if (!refusal) {
        throw std::bad_alloc();
    }
    return refusal;
}

MessageRef MakeRefusal(DBusMessage* message, const IMsgBus& bus) {
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return {};
    }
    const std::string path = TextOf(dbus_message_get_path(message));
    if (DescribedObjects::Get().IsUnknown(bus, path)) {
        return MakeRefusal(message, DBUS_ERROR_UNKNOWN_OBJECT, "There is no object " + path);
    }
    return MakeRefusal(message, DBUS_ERROR_UNKNOWN_METHOD,
                       "Method \"" + std::string(TextOf(dbus_message_get_member(message))) +
                           "\" with signature \"" + dbus_message_get_signature(message) +
                           "\" on interface \"" + TextOf(dbus_message_get_interface(message)) +
                           "\" doesn't exist\n");
}

}  // namespace zarip::msgbus
