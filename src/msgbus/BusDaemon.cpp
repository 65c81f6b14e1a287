// SPDX-License-Identifier: MIT

#include "msgbus/BusDaemon.h"

#include "msgbus/DBusText.h"
#include "msgbus/Inbox.h"
#include "zarip/core/Logger.h"
#include "zarip/osa/Exception.h"

namespace zarip::msgbus {

namespace {

constexpr unsigned int kNameFlags = DBUS_NAME_FLAG_REPLACE_EXISTING | DBUS_NAME_FLAG_DO_NOT_QUEUE;
/// The time limits, in milliseconds, for acquiring and for releasing names and rules.
constexpr int kAskLimitMs = 5000;
constexpr int kGiveUpLimitMs = 250;
/// The bus accepts rules of 1,024 bytes. It would close the connection for a message above 32 MiB.
constexpr std::size_t kMaxRule = std::size_t{64} * 1024;

/// Makes a call of the bus daemon with one string.
MessageRef MakeCall(const char* member, const std::string& argument) {
    MessageRef call = MessageRef::Adopt(
        dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, member));
    const char* const text = argument.c_str();
    if (!call || dbus_message_append_args(call.Get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID) == FALSE) {
        throw osa::Exception("MsgBusMsg: Creating msg failed!");
    }
    return call;
}

}  // namespace

/// Calls the bus daemon. If it does not respond and the caller does not need an answer (`mustAsk`), the call
/// is sent without waiting and counts as timed out.
MessageRef BusDaemon::Call(MessageRef call, int limitMs, bool mustAsk, DBusErrorRecord& error) {
    const std::size_t size = MeasureMessage(call.Get());
    if (!mustAsk && _connection->IsUnresponsive()) {
        dbus_message_set_no_reply(call.Get(), TRUE);
        _connection->Send(std::move(call), size, _state->GetPatience());
        dbus_set_error_const(error.Get(), DBUS_ERROR_NO_REPLY, "The bus does not answer");
        return {};
    }
    // A name must not be acquired after its request has timed out. All other requests are still sent.
    const auto afterTimeout =
        mustAsk ? BusConnection::AfterTimeout::kWithdraw : BusConnection::AfterTimeout::kSend;
    MessageRef reply =
        _connection->Call(std::move(call), size, limitMs, _state->GetPatience(), afterTimeout, error);
    if (dbus_error_has_name(error.Get(), DBUS_ERROR_NO_REPLY) != FALSE) {
        _connection->NoteUnresponsive();
    }
    return reply;
}

void BusDaemon::RequestName(const std::string& name) {
    _logger->Trace("calling dbus_bus_request_name() with name = %s", name.c_str());
    if (!IsValidBusName(name.c_str())) {
        throw osa::Exception("dbus_bus_request_name failed for " + name + "Requested bus name is not valid");
    }
    DBusErrorRecord error;
    MessageRef call = MakeCall("RequestName", name);
    const dbus_uint32_t flags = kNameFlags;
    // libdbus leaves half a message when it fails, for which the bus would close the connection.
    if (dbus_message_append_args(call.Get(), DBUS_TYPE_UINT32, &flags, DBUS_TYPE_INVALID) == FALSE) {
        throw osa::Exception("MsgBusMsg: Creating msg failed!");
    }
    const MessageRef reply = Call(std::move(call), kAskLimitMs, true, error);
    dbus_uint32_t result = 0;
    if (reply) {
        dbus_message_get_args(reply.Get(), error.Get(), DBUS_TYPE_UINT32, &result, DBUS_TYPE_INVALID);
    }
    if (error.IsSet()) {
        throw osa::Exception("dbus_bus_request_name failed for " + name + error.GetMessage());
    }
    if (result != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER && result != DBUS_REQUEST_NAME_REPLY_ALREADY_OWNER) {
        throw osa::Exception("error requesting name or not primary owner");
    }
}

void BusDaemon::ReleaseName(const std::string& name) {
    if (_state->IsLost()) {
        return;  // the bus released it with the connection
    }
    DBusErrorRecord error;
    if (IsValidBusName(name.c_str())) {
        Call(MakeCall("ReleaseName", name), kGiveUpLimitMs, false, error);
    } else {
        dbus_set_error_const(error.Get(), DBUS_ERROR_INVALID_ARGS, "Bus name is not valid");
    }
    if (error.IsSet()) {
        _logger->Error("dbus_bus_release_name(%s) failed: %s", name.c_str(), error.GetMessage().c_str());
    }
}

void BusDaemon::AddMatch(const std::string& rule) {
    DBusErrorRecord error;
    if (rule.size() > kMaxRule) {
        dbus_set_error_const(error.Get(), DBUS_ERROR_LIMITS_EXCEEDED, "Match rule is too long");
    } else if (IsValidText(rule.c_str())) {
        Call(MakeCall("AddMatch", rule), kAskLimitMs, false, error);
    } else {
        dbus_set_error_const(error.Get(), DBUS_ERROR_MATCH_RULE_INVALID, "Match rule is not valid UTF-8");
    }
    if (error.IsSet()) {
        _logger->Error("dbus_bus_add_match(%s) failed: %s", rule.c_str(), error.GetMessage().c_str());
    } else {
        _logger->Trace("Match rule applied: %s", rule.c_str());
    }
}

void BusDaemon::RemoveMatch(const std::string& rule) {
    DBusErrorRecord error;
    _logger->Trace("Calling dbus_bus_remove_match(%s)", rule.c_str());
    if (!_state->IsLost() && rule.size() <= kMaxRule && IsValidText(rule.c_str())) {
        Call(MakeCall("RemoveMatch", rule), kGiveUpLimitMs, false, error);
    }
    if (error.IsSet()) {
        _logger->Error("dbus_bus_remove_match(%s) failed: %s", rule.c_str(), error.GetMessage().c_str());
    } else {
        _logger->Trace("Match rule removed: %s", rule.c_str());
    }
}

}  // namespace zarip::msgbus
