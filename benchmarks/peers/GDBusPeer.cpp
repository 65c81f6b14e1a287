// SPDX-License-Identifier: MIT

// GDBus, as in its manual: calls of the client block, and server and subscriber run a main loop.

#include <gio/gio.h>

#include "Peer.h"

namespace peer {
namespace {

void Check(const GError* error) {
    if (error != nullptr) {
        Fail(error->message);
    }
}

GDBusConnection* Connect() {
    GError* error = nullptr;
    GDBusConnection* const connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    Check(error);
    return connection;
}

// Calls the bus itself and waits for the answer.
void CallBus(GDBusConnection* connection, const char* method, GVariant* arguments) {
    GError* error = nullptr;
    GVariant* const reply = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method,
        arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
    Check(error);
    g_variant_unref(reply);
}

void OwnName(GDBusConnection* connection) {
    constexpr guint32 kDoNotQueue = 4;
    CallBus(connection, "RequestName", g_variant_new("(su)", kService, kDoNotQueue));
}

[[noreturn]] void RunMainLoop() {
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    Fail("the main loop ended");
}

void ReplyWithArgument(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
                       const gchar* /*interface*/, const gchar* method, GVariant* arguments,
                       GDBusMethodInvocation* invocation, gpointer /*data*/) {
    const gchar* text = nullptr;
    if (g_str_equal(method, kMethod) != FALSE) {
        g_variant_get(arguments, "(&s)", &text);
    } else {
        gboolean flags[2] = {};
        const gchar* others[6] = {};
        g_variant_get(arguments, "(b&s&s&sb&s&s&s&s)", &flags[0], &others[0], &others[1], &others[2],
                      &flags[1], &others[3], &others[4], &others[5], &text);
    }
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", text));
}

void ReceiveSignal(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
                   const gchar* /*interface*/, const gchar* /*signal*/, GVariant* arguments, gpointer data) {
    gboolean value = FALSE;
    g_variant_get(arguments, "(b)", &value);
    (*static_cast<const std::function<void(bool)>*>(data))(value != FALSE);
}

}  // namespace

void Serve(const std::function<void()>& ready) {
    GDBusConnection* const connection = Connect();
    GError* error = nullptr;
    GDBusNodeInfo* const node = g_dbus_node_info_new_for_xml(
        "<node><interface name='com.brelk.system.security'><method name='GetCredentials'>"
        "<arg type='s' direction='in'/><arg type='s' direction='out'/></method>"
        "<method name='AuthenticateHttp'><arg type='b' direction='in'/><arg type='s' direction='in'/>"
        "<arg type='s' direction='in'/><arg type='s' direction='in'/><arg type='b' direction='in'/>"
        "<arg type='s' direction='in'/><arg type='s' direction='in'/><arg type='s' direction='in'/>"
        "<arg type='s' direction='in'/><arg type='s' direction='out'/></method></interface></node>",
        &error);
    Check(error);
    GDBusInterfaceVTable table{};
    table.method_call = ReplyWithArgument;
    g_dbus_connection_register_object(connection, kPath, node->interfaces[0], &table, nullptr, nullptr,
                                      &error);
    Check(error);
    OwnName(connection);
    ready();
    RunMainLoop();
}

Caller MakeCaller() {
    GDBusConnection* const connection = Connect();
    const auto answerTo = [connection](const char* method, GVariant* arguments) {
        GError* error = nullptr;
        GVariant* const reply =
            g_dbus_connection_call_sync(connection, kService, kPath, kService, method, arguments,
                                        G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
        Check(error);
        const gchar* answer = nullptr;
        g_variant_get(reply, "(&s)", &answer);
        std::string result = answer;
        g_variant_unref(reply);
        return result;
    };
    return {
        [answerTo](const std::string& text) { return answerTo(kMethod, g_variant_new("(s)", text.c_str())); },
        [answerTo](const std::string& text) {
            return answerTo(
                kLongMethod,
                g_variant_new("(bsssbssss)", TRUE, kTexts[0].c_str(), kTexts[1].c_str(), kTexts[2].c_str(),
                              TRUE, kTexts[3].c_str(), kTexts[4].c_str(), kTexts[5].c_str(), text.c_str()));
        }};
}

Emitter MakeEmitter() {
    GDBusConnection* const connection = Connect();
    OwnName(connection);
    return {[connection](bool value) {
                GError* error = nullptr;
                g_dbus_connection_emit_signal(connection, nullptr, kPath, kService, kSignal,
                                              g_variant_new("(b)", value ? TRUE : FALSE), &error);
                Check(error);
            },
            [connection] {
                GError* error = nullptr;
                g_dbus_connection_flush_sync(connection, nullptr, &error);
                Check(error);
            }};
}

void Listen(const std::function<void()>& ready, const std::function<void(bool)>& receive) {
    GDBusConnection* const connection = Connect();
    g_dbus_connection_signal_subscribe(connection, nullptr, kService, kSignal, kPath, nullptr,
                                       G_DBUS_SIGNAL_FLAGS_NONE, ReceiveSignal,
                                       const_cast<std::function<void(bool)>*>(&receive), nullptr);
    // The rule is requested without waiting. A call that is answered comes after it.
    CallBus(connection, "GetId", nullptr);
    ready();
    RunMainLoop();
}

}  // namespace peer
