// SPDX-License-Identifier: MIT

#include "msgbus/MessageReceiver.h"

#include <cxxabi.h>

#include <limits>

#include "msgbus/CallRouting.h"
#include "osa/DescribeCaught.h"
#include "zarip/core/Logger.h"
#include "zarip/msgbus/IMsgBus.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::msgbus {

namespace {

constexpr std::size_t kInboxMemory = std::size_t{32} * 1024 * 1024;
constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();
constexpr Inbox::Limits kWhileListening = {kInboxMemory, kNoLimit};
constexpr Inbox::Limits kWhileNobodyListens = {kInboxMemory, 1000};
/// Signals up to this size are kept even if no handler takes them, because one may be registered later.
constexpr std::size_t kLargeSignal = std::size_t{64} * 1024;
/// Each message may have sixteen descriptors, and a process has about a thousand.
constexpr std::size_t kMaxWithDescriptors = 16;

/// Marks the time of a dispatch. The destructor also runs if a handler calls pthread_exit.
class Dispatching {
public:
    Dispatching(BusConnection& connection, bool& flag) : _connection(connection), _flag(flag) {
        _flag = true;
        _connection.BeginHandling();
    }
    Dispatching(const Dispatching&) = delete;
    Dispatching& operator=(const Dispatching&) = delete;
    ~Dispatching() {
        _connection.EndHandling();
        _flag = false;
    }

private:
    BusConnection& _connection;
    bool& _flag;
};

/// Sends a refusal unless it is null.
void PostRefusal(BusConnection& connection, MessageRef refusal) {
    if (refusal) {
        connection.Post(std::move(refusal));
    }
}

/// Answers a call for which memory was too short. If memory is too short for the answer as well, the caller
/// waits for its time-out.
void RefuseFailed(BusConnection& connection, DBusMessage* call) noexcept {
    try {
        PostRefusal(connection, MakeRefusal(call, DBUS_ERROR_NO_MEMORY, "Out of Memory!"));
    } catch (...) {
    }
}

}  // namespace

MessageReceiver::MessageReceiver(IMsgBus* bus, core::Logger* logger, ListenState* state,
                                 MessageDispatcher* dispatcher)
    : _bus(bus), _logger(logger), _state(state), _dispatcher(dispatcher) {}

void MessageReceiver::OnReceived(BusConnection& connection, MessageRef message) {
    try {
        const bool isListening = _state->IsRunning();
        if (isListening && IsUnwanted(message.Get())) {
            LogReceived(message.Get());
        } else if (_state->IsListenThread() && !_isDispatching) {
            // The listen thread has found the inbox empty and dispatches this message next, so no limit
            // applies.
            _inbox.Put(message, 0, {kNoLimit, kNoLimit});
        } else {
            KeepMessage(connection, message, isListening);
            // The state is checked again, because a thread that has begun to listen in between may have found
            // the inbox empty.
            if (_state->IsRunning()) {
                connection.WakeListener();
            }
        }
    } catch (...) {
        _logger->Error("Error handling incoming message: %s", "Out of Memory!");
        if (message) {
            RefuseFailed(connection, message.Get());
        }
    }
}

/// Returns whether the message is a signal that no handler takes. Any process may send such signals.
bool MessageReceiver::IsUnwanted(DBusMessage* message) const {
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_SIGNAL) {
        return false;
    }
    const std::string_view member = ViewOf(dbus_message_get_member(message));
    return member != "NameLost" && !_dispatcher->HasTaker(ViewOf(dbus_message_get_interface(message)), member,
                                                          IMessageHandler::kSignals);
}

/// Puts a message into the inbox because the listen thread cannot dispatch it at once.
void MessageReceiver::KeepMessage(BusConnection& connection, MessageRef& message, bool isListening) {
    DBusMessage* const raw = message.Get();
    if (dbus_message_contains_unix_fds(raw) != FALSE &&
        (!isListening || _inbox.CountWithDescriptors() >= kMaxWithDescriptors)) {
        PostRefusal(connection, MakeRefusal(raw, *_bus));
        return;
    }
    const std::size_t size = MeasureMessage(raw);
    if (size > kLargeSignal && IsUnwanted(raw)) {
        return;
    }
    switch (_inbox.Put(message, size, isListening ? kWhileListening : kWhileNobodyListens)) {
        case Inbox::Result::kKept:
            break;
        case Inbox::Result::kDroppedSignals:
            WarnOfDropping(isListening);
            break;
        case Inbox::Result::kFull:
            WarnOfDropping(isListening);
            PostRefusal(connection,
                        MakeRefusal(raw, DBUS_ERROR_LIMITS_EXCEEDED, "Too many messages wait to be handled"));
            break;
    }
}

void MessageReceiver::WarnOfDropping(bool isListening) {
    if (!_hasWarned.exchange(true)) {
        _logger->Warning("%s: dropping the oldest of %zu messages",
                         isListening ? "The handlers are too slow" : "Nobody listens", _inbox.GetCount());
    }
}

void MessageReceiver::OnLost(BusConnection& connection) {
    _state->NoteLost();
    connection.WakeListener();
}

bool MessageReceiver::DispatchNext(BusConnection& connection) {
    const MessageRef message = _inbox.Take();
    if (!message) {
        _hasWarned = false;
        return false;
    }
    const osa::MutexAutoLock lock(&_busMutex);
    const Dispatching dispatching(connection, _isDispatching);
    try {
        if (!DispatchMsg(message.Get())) {
            PostRefusal(connection, MakeRefusal(message.Get(), *_bus));
        }
    } catch (const abi::__forced_unwind&) {
        throw;  // pthread_exit
    } catch (...) {
        _logger->Error("Error handling incoming message: %s", osa::DescribeCaught());
        RefuseFailed(connection, message.Get());
    }
    return true;
}

bool MessageReceiver::DispatchMsg(DBusMessage* message) {
    LogReceived(message);
    switch (dbus_message_get_type(message)) {
        case DBUS_MESSAGE_TYPE_METHOD_RETURN:
            _logger->Warning("Just rcvd a method reply, we're not supposed to!");
            return true;
        case DBUS_MESSAGE_TYPE_ERROR:
            LogReceivedError(message);
            return true;
        case DBUS_MESSAGE_TYPE_METHOD_CALL:
            return RouteToHandlers(message, *_dispatcher, *_bus);
        case DBUS_MESSAGE_TYPE_SIGNAL:
            if (ViewOf(dbus_message_get_member(message)) == "NameLost") {
                LogLostName(message);
                return true;
            }
            return RouteToHandlers(message, *_dispatcher, *_bus);
        default:
            return false;
    }
}

void MessageReceiver::LogReceived(DBusMessage* message) {
    if (_logger->IsEnabled(core::Logger::kTrace)) {
        _logger->Trace("Received a %s with name=%s on interface %s from %s",
                       dbus_message_type_to_string(dbus_message_get_type(message)),
                       TextOf(dbus_message_get_member(message)), TextOf(dbus_message_get_interface(message)),
                       TextOf(dbus_message_get_sender(message)));
    }
}

void MessageReceiver::LogReceivedError(DBusMessage* message) {
    DBusErrorRecord error;
    dbus_set_error_from_message(error.Get(), message);
    _logger->Error("Got ERROR: %s: %s", error.GetName(), error.GetMessage().c_str());
}

void MessageReceiver::LogLostName(DBusMessage* message) {
    const char* name = "";
    dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID);
    _logger->Information("Lost connection name: %s", TextOf(name));
}

}  // namespace zarip::msgbus
