// SPDX-License-Identifier: MIT

#include <dbus/dbus.h>

#include <memory>

#include <zarip/osa/DateTime.h>

#include "Commands.h"
#include "Failure.h"
#include "Names.h"
#include "Output.h"

namespace bus {

using namespace zarip;

namespace {

/// An error of libdbus, which the destructor frees.
struct Error : DBusError {
    Error() { dbus_error_init(this); }
    Error(const Error&) = delete;
    Error& operator=(const Error&) = delete;
    ~Error() { dbus_error_free(this); }

    void Check() const {
        if (dbus_error_is_set(this) != FALSE) {
            throw Failure(kFailed, message);
        }
    }
};

/// A connection whose messages are only read and never dispatched, because a connection that monitors the bus
/// must not answer.
struct Connection {
    Connection() {
        Error error;
        connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, &error);
        error.Check();
        dbus_connection_set_exit_on_disconnect(connection, FALSE);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() {
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
    }

    DBusConnection* connection = nullptr;
};

std::string Line(DBusMessage* raw) {
    const msgbus::MsgBusMsg message(raw);
    JsonObject line;
    const auto add = [&line](const char* name, const std::string& value) {
        if (!value.empty()) {
            line.Add(name, JsonString(value));
        }
    };
    add("time", osa::DateTime::Now().ToString());
    add("type", message.GetType());
    add("sender", message.GetSender());
    add("destination", message.GetDestination());
    add("path", message.GetPath());
    add("interface", message.GetInterface());
    add("member", message.GetName());
    const char* const error = dbus_message_get_error_name(raw);
    add("error", error != nullptr ? error : "");
    line.Add("serial", std::to_string(dbus_message_get_serial(raw)));
    if (dbus_message_get_reply_serial(raw) != 0) {
        line.Add("replySerial", std::to_string(dbus_message_get_reply_serial(raw)));
    }
    line.Add("arguments", ArgumentsAsJson(raw));
    return line.Get();
}

/// Selects the messages that are shown.
struct View {
    Strings rules;    ///< match rules for all requested messages; empty for the whole bus
    Strings signals;  ///< match rules for the part of them that every user may receive
};

View MakeView(msgbus::MsgBus& bus, const Options& options) {
    if (options.words.size() == 1) {
        return {{}, {"type='signal'"}};
    }
    // The service need not be on the bus yet.
    const std::string service = Resolve(GetNames(bus), options.words[1]);
    if (dbus_validate_bus_name(service.c_str(), nullptr) == FALSE) {
        throw Failure(kUsageError, "'" + service + "' is not the name of a service");
    }
    View view = {{"sender='" + service + "'", "destination='" + service + "'"},
                 {"type='signal',sender='" + service + "'"}};
    if (dbus_validate_interface(service.c_str(), nullptr) != FALSE) {
        view.rules.push_back("interface='" + service + "'");
        view.signals.push_back("type='signal',interface='" + service + "'");
    }
    return view;
}

/// Makes a connection a monitor, which receives the messages of all others.
void BecomeMonitor(DBusConnection* connection, const Strings& rules, Error& error) {
    msgbus::MsgBusMsg message(msgbus::MsgBusMsg::kMethodCall);
    message.SetMsgDestination(DBUS_SERVICE_DBUS);
    message.SetMsgPath(DBUS_PATH_DBUS);
    message.SetMsgInterface(DBUS_INTERFACE_MONITORING);
    message.SetMsgName("BecomeMonitor");
    message << rules << 0U;
    DBusMessage* const reply = dbus_connection_send_with_reply_and_block(connection, message.GetDBusMessage(),
                                                                         kCallTimeoutMs, &error);
    if (reply != nullptr) {
        dbus_message_unref(reply);
    }
}

/// Monitors the bus, or subscribes to the signals if the bus refuses monitoring.
void Watch(DBusConnection* connection, const View& view) {
    Error refusal;
    BecomeMonitor(connection, view.rules, refusal);
    const char* const refusals[] = {DBUS_ERROR_ACCESS_DENIED, DBUS_ERROR_UNKNOWN_METHOD,
                                    DBUS_ERROR_UNKNOWN_INTERFACE, DBUS_ERROR_UNKNOWN_OBJECT,
                                    DBUS_ERROR_NOT_SUPPORTED};
    bool isRefused = false;
    for (const char* name : refusals) {
        isRefused = isRefused || dbus_error_has_name(&refusal, name) != FALSE;
    }
    if (!isRefused) {
        refusal.Check();
        return;
    }
    for (const std::string& rule : view.signals) {
        Error error;
        dbus_bus_add_match(connection, rule.c_str(), &error);
        error.Check();
    }
    Complain("the bus does not let this user watch it, so only signals are shown");
}

void PrintMessages(DBusConnection* connection) {
    const auto unref = [](DBusMessage* message) { dbus_message_unref(message); };
    const std::string self = dbus_bus_get_unique_name(connection);
    for (;;) {
        const std::unique_ptr<DBusMessage, decltype(unref)> message(dbus_connection_pop_message(connection),
                                                                    unref);
        if (!message) {
            break;
        }
        // Messages from the bus to this connection are not shown.
        const bool isOwn =
            dbus_message_is_signal(message.get(), DBUS_INTERFACE_LOCAL, "Disconnected") != FALSE ||
            dbus_message_has_destination(message.get(), self.c_str()) != FALSE;
        if (!isOwn) {
            Print(Line(message.get()));
        }
    }
    Flush();
}

}  // namespace

int Monitor(msgbus::MsgBus& bus, const Options& options) {
    const View view = MakeView(bus, options);
    const Connection monitor;
    Watch(monitor.connection, view);
    // The queue is checked before and after reading: reading waits even if messages are queued, and the last
    // read may queue messages as well.
    do {
        PrintMessages(monitor.connection);
    } while (dbus_connection_read_write(monitor.connection, -1) != FALSE);
    PrintMessages(monitor.connection);
    throw Failure(kNotThere, "the bus went away");
}

}  // namespace bus
