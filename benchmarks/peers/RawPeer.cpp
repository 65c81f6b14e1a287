// SPDX-License-Identifier: MIT

// libdbus alone, on one thread. No library that uses libdbus can be faster.

#include <memory>

#include <dbus/dbus.h>

#include "Peer.h"

namespace peer {
namespace {

struct Unref {
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using Message = std::unique_ptr<DBusMessage, Unref>;

class Error {
public:
    Error() { dbus_error_init(&_error); }
    Error(const Error&) = delete;
    Error& operator=(const Error&) = delete;
    ~Error() { dbus_error_free(&_error); }

    DBusError* Get() { return &_error; }
    void Check() const {
        if (dbus_error_is_set(&_error) != 0) {
            Fail(_error.message);
        }
    }

private:
    DBusError _error;
};

DBusConnection* Connect() {
    Error error;
    DBusConnection* const connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, error.Get());
    error.Check();
    return connection;
}

const char* ReadText(DBusMessage* message) {
    Error error;
    const char* text = nullptr;
    dbus_message_get_args(message, error.Get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    error.Check();
    return text;
}

/// The last of the nine, copied as a service has to.
std::string ReadLongCall(DBusMessage* call) {
    Error error;
    dbus_bool_t flags[2] = {};
    const char* texts[7] = {};
    dbus_message_get_args(call, error.Get(), DBUS_TYPE_BOOLEAN, &flags[0], DBUS_TYPE_STRING, &texts[0],
                          DBUS_TYPE_STRING, &texts[1], DBUS_TYPE_STRING, &texts[2], DBUS_TYPE_BOOLEAN,
                          &flags[1], DBUS_TYPE_STRING, &texts[3], DBUS_TYPE_STRING, &texts[4],
                          DBUS_TYPE_STRING, &texts[5], DBUS_TYPE_STRING, &texts[6], DBUS_TYPE_INVALID);
    error.Check();
    return texts[6];
}

DBusHandlerResult ReplyWithArgument(DBusConnection* connection, DBusMessage* call, void* /*data*/) {
    std::string answer;
    if (dbus_message_is_method_call(call, kService, kMethod) != 0) {
        answer = ReadText(call);
    } else if (dbus_message_is_method_call(call, kService, kLongMethod) != 0) {
        answer = ReadLongCall(call);
    } else {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    const char* const text = answer.c_str();
    const Message reply(dbus_message_new_method_return(call));
    dbus_message_append_args(reply.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    dbus_connection_send(connection, reply.get(), nullptr);
    return DBUS_HANDLER_RESULT_HANDLED;
}

DBusHandlerResult ReceiveSignal(DBusConnection* /*connection*/, DBusMessage* signal, void* data) {
    if (dbus_message_is_signal(signal, kService, kSignal) == 0) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    dbus_bool_t value = 0;
    Error error;
    dbus_message_get_args(signal, error.Get(), DBUS_TYPE_BOOLEAN, &value, DBUS_TYPE_INVALID);
    error.Check();
    (*static_cast<const std::function<void(bool)>*>(data))(value != 0);
    return DBUS_HANDLER_RESULT_HANDLED;
}

void OwnName(DBusConnection* connection) {
    Error error;
    dbus_bus_request_name(connection, kService, DBUS_NAME_FLAG_DO_NOT_QUEUE, error.Get());
    error.Check();
}

[[noreturn]] void Dispatch(DBusConnection* connection) {
    while (dbus_connection_read_write_dispatch(connection, -1) != 0) {
    }
    Fail("the bus is gone");
}

}  // namespace

void Serve(const std::function<void()>& ready) {
    DBusConnection* const connection = Connect();
    DBusObjectPathVTable table{};
    table.message_function = ReplyWithArgument;
    dbus_connection_register_object_path(connection, kPath, &table, nullptr);
    OwnName(connection);
    ready();
    Dispatch(connection);
}

Caller MakeCaller() {
    DBusConnection* const connection = Connect();
    const auto answerTo = [connection](const Message& call) -> std::string {
        Error error;
        const Message reply(
            dbus_connection_send_with_reply_and_block(connection, call.get(), 5000, error.Get()));
        error.Check();
        return ReadText(reply.get());
    };
    return {[answerTo](const std::string& text) {
                const Message call(dbus_message_new_method_call(kService, kPath, kService, kMethod));
                const char* const argument = text.c_str();
                dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &argument, DBUS_TYPE_INVALID);
                return answerTo(call);
            },
            [answerTo](const std::string& text) {
                const Message call(dbus_message_new_method_call(kService, kPath, kService, kLongMethod));
                const dbus_bool_t flag = 1;
                const char* texts[7];
                for (std::size_t i = 0; i < 6; ++i) {
                    texts[i] = kTexts[i].c_str();
                }
                texts[6] = text.c_str();
                dbus_message_append_args(call.get(), DBUS_TYPE_BOOLEAN, &flag, DBUS_TYPE_STRING, &texts[0],
                                         DBUS_TYPE_STRING, &texts[1], DBUS_TYPE_STRING, &texts[2],
                                         DBUS_TYPE_BOOLEAN, &flag, DBUS_TYPE_STRING, &texts[3],
                                         DBUS_TYPE_STRING, &texts[4], DBUS_TYPE_STRING, &texts[5],
                                         DBUS_TYPE_STRING, &texts[6], DBUS_TYPE_INVALID);
                return answerTo(call);
            }};
}

Emitter MakeEmitter() {
    DBusConnection* const connection = Connect();
    OwnName(connection);
    return {[connection](bool value) {
                const Message signal(dbus_message_new_signal(kPath, kService, kSignal));
                const dbus_bool_t argument = value ? 1 : 0;
                dbus_message_append_args(signal.get(), DBUS_TYPE_BOOLEAN, &argument, DBUS_TYPE_INVALID);
                dbus_connection_send(connection, signal.get(), nullptr);
                if (dbus_connection_has_messages_to_send(connection) != 0) {
                    dbus_connection_flush(connection);
                }
            },
            [connection] { dbus_connection_flush(connection); }};
}

void Listen(const std::function<void()>& ready, const std::function<void(bool)>& receive) {
    DBusConnection* const connection = Connect();
    dbus_connection_add_filter(connection, ReceiveSignal, const_cast<std::function<void(bool)>*>(&receive),
                               nullptr);
    Error error;
    dbus_bus_add_match(connection, kRule, error.Get());
    error.Check();
    ready();
    Dispatch(connection);
}

}  // namespace peer
