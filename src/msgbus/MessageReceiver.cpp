#include "msgbus/MessageReceiver.h"

#include <cxxabi.h>

#include <limits>
#include <new>

#include "msgbus/DBusText.h"
#include "msgbus/DescribedObject.h"
#include "msgbus/MsgBusMsgImpl.h"
#include "zarip/core/Logger.h"
#include "zarip/msgbus/IMsgBus.h"
#include "zarip/msgbus/MsgBusMsg.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::msgbus {

namespace {

constexpr std::size_t kInboxMemory = std::size_t{32} * 1024 * 1024;
constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();
constexpr Inbox::Limits kWhileListening = {kInboxMemory, kNoLimit};
constexpr Inbox::Limits kWhileNobodyListens = {kInboxMemory, 1000};
/// A signal that no handler takes is kept only below this size; a handler may be registered later.
constexpr std::size_t kLargeSignal = 64 * 1024;
/// Each may hold sixteen descriptors, and a process has about a thousand.
constexpr std::size_t kMaxWithDescriptors = 16;

/// A message is dispatched for the length of a scope, which pthread_exit may end as well.
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

/// Answers a call that expects it with an error; does nothing for other messages.
void Refuse(BusConnection& connection, DBusMessage* call, const char* error, const std::string& text) {
    if (dbus_message_get_type(call) == DBUS_MESSAGE_TYPE_METHOD_CALL &&
        dbus_message_get_no_reply(call) == FALSE) {
        MessageRef reply = MessageRef::Adopt(dbus_message_new_error(call, error, ToErrorText(text).c_str()));
        if (!reply) {
            throw std::bad_alloc();
        }
        connection.Post(std::move(reply));
    }
}

/// For a call that memory was too short for. There may be enough for this answer again, or later; otherwise
/// the caller waits for its time-out.
void RefuseFailed(BusConnection& connection, DBusMessage* call) noexcept {
    try {
        Refuse(connection, call, DBUS_ERROR_NO_MEMORY, "Out of Memory!");
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
            // It has found the inbox empty and dispatches this next: there is nothing to bound.
            _inbox.Put(message, 0, {kNoLimit, kNoLimit});
        } else {
            Keep(connection, message, isListening);
            // Asked again: a thread that began to listen meanwhile may have found the inbox empty.
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

/// Whether it is a signal that no handler takes, which anybody may send.
bool MessageReceiver::IsUnwanted(DBusMessage* message) const {
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_SIGNAL) {
        return false;
    }
    const std::string_view member = ViewOf(dbus_message_get_member(message));
    return member != "NameLost" && !_dispatcher->Takes(ViewOf(dbus_message_get_interface(message)), member,
                                                       IMessageHandler::kSignals);
}

/// Puts a message into the inbox that the listen thread cannot dispatch at once.
void MessageReceiver::Keep(BusConnection& connection, MessageRef& message, bool isListening) {
    DBusMessage* const raw = message.Get();
    if (dbus_message_contains_unix_fds(raw) != FALSE &&
        (!isListening || _inbox.CountWithDescriptors() >= kMaxWithDescriptors)) {
        RefuseUnknown(connection, raw);
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
            Refuse(connection, raw, DBUS_ERROR_LIMITS_EXCEEDED, "Too many messages wait to be handled");
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
    _state->Lose();
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
            RefuseUnknown(connection, message.Get());
        }
    } catch (const abi::__forced_unwind&) {
        throw;  // pthread_exit
    } catch (const std::exception& e) {
        _logger->Error("Error handling incoming message: %s", e.what());
        RefuseFailed(connection, message.Get());
    } catch (...) {
        _logger->Error("Error handling incoming message: %s", "unknown");
        RefuseFailed(connection, message.Get());
    }
    return true;
}

bool MessageReceiver::DispatchMsg(DBusMessage* message) {
    const int type = dbus_message_get_type(message);
    if (_logger->IsEnabled(core::Logger::kTrace)) {
        _logger->Trace("Received a %s with name=%s on interface %s from %s",
                       dbus_message_type_to_string(type), TextOf(dbus_message_get_member(message)),
                       TextOf(dbus_message_get_interface(message)), TextOf(dbus_message_get_sender(message)));
    }
    switch (type) {
        case DBUS_MESSAGE_TYPE_METHOD_RETURN:
            _logger->Warning("Just rcvd a method reply, we're not supposed to!");
            return true;
        case DBUS_MESSAGE_TYPE_ERROR:
            LogReceivedError(message);
            return true;
        case DBUS_MESSAGE_TYPE_METHOD_CALL:
            return DispatchToHandlers(message);
        case DBUS_MESSAGE_TYPE_SIGNAL:
            if (ViewOf(dbus_message_get_member(message)) == "NameLost") {
                LogLostName(message);
                return true;
            }
            return DispatchToHandlers(message);
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

bool MessageReceiver::DispatchToHandlers(DBusMessage* message) {
    const MsgBusMsg wrapped(new MsgBusMsgImpl(message));
    const std::string_view member = ViewOf(dbus_message_get_member(message));
    std::string_view interface = ViewOf(dbus_message_get_interface(message));
    if (dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_SIGNAL) {
        return _dispatcher->Dispatch(wrapped, interface, member, true, *_bus);
    }
    std::string found;
    if (interface.empty()) {
        // The interface of a call is optional: many clients leave it out.
        found = _dispatcher->FindInterface(member);
        interface = found;
    }
    if (DescribedObject::Find(*_bus, ViewOf(dbus_message_get_path(message)), interface) ==
        DescribedObject::Place::kElsewhere) {
        return false;
    }
    return _dispatcher->Dispatch(wrapped, interface, member, false, *_bus) || AnswerIntrospect(wrapped);
}

/// Answers the call if it is Introspect and the path is known.
bool MessageReceiver::AnswerIntrospect(const MsgBusMsg& call) {
    const std::string interface = call.GetInterface();
    if (call.GetName() != "Introspect" ||
        (!interface.empty() && interface != DBUS_INTERFACE_INTROSPECTABLE)) {
        return false;
    }
    const std::string document = DescribedObject::Describe(*_bus, call.GetPath());
    if (!document.empty() && call.IsExpectingResponse()) {
        const std::unique_ptr<MsgBusMsg> reply(call.MakeReplyMsg());
        *reply << document;
        _bus->SendReply(*reply);
    }
    return !document.empty();
}

/// Answers a call that nobody takes, as libdbus does it.
void MessageReceiver::RefuseUnknown(BusConnection& connection, DBusMessage* call) {
    if (dbus_message_get_type(call) != DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return;
    }
    const std::string path = TextOf(dbus_message_get_path(call));
    if (DescribedObject::IsUnknown(*_bus, path)) {
        Refuse(connection, call, DBUS_ERROR_UNKNOWN_OBJECT, "There is no object " + path);
        return;
    }
    Refuse(connection, call, DBUS_ERROR_UNKNOWN_METHOD,
           "Method \"" + std::string(TextOf(dbus_message_get_member(call))) + "\" with signature \"" +
               dbus_message_get_signature(call) + "\" on interface \"" +
               TextOf(dbus_message_get_interface(call)) + "\" doesn't exist\n");
}

}  // namespace zarip::msgbus
