#include "zarip/msgbus/MsgBus.h"

#include <atomic>
#include <limits>

#include "msgbus/BusConnection.h"
#include "msgbus/DBusText.h"
#include "msgbus/DescribedObject.h"
#include "msgbus/Inbox.h"
#include "msgbus/ListenState.h"
#include "msgbus/MessageDispatcher.h"
#include "msgbus/MsgBusMsgImpl.h"
#include "zarip/core/Logger.h"
#include "zarip/msgbus/MsgBusMsg.h"
#include "zarip/osa/Exception.h"
#include "zarip/osa/Mutex.h"
#include "zarip/osa/MutexAutoLock.h"
#include "zarip/osa/Runnable.h"
#include "zarip/osa/Thread.h"

namespace zarip::msgbus {

namespace {

constexpr unsigned int kNameFlags = DBUS_NAME_FLAG_REPLACE_EXISTING | DBUS_NAME_FLAG_DO_NOT_QUEUE;
/// How long names and rules are waited for, in milliseconds: when they are wanted, and when they are given
/// up.
constexpr int kAskLimitMs = 5000;
constexpr int kGiveUpLimitMs = 800;

constexpr std::size_t kInboxMemory = std::size_t{32} * 1024 * 1024;
constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();
constexpr Inbox::Limits kWhileListening = {kInboxMemory, kNoLimit};
constexpr Inbox::Limits kWhileNobodyListens = {kInboxMemory, 1000};
/// A signal that no handler takes is kept only below this size; a handler may be registered later.
constexpr std::size_t kLargeSignal = 64 * 1024;
/// Each may hold sixteen descriptors, and a process has about a thousand.
constexpr std::size_t kMaxWithDescriptors = 16;

constexpr const char* kSendFailed = "dbus_connection_send failed";

bool IsCall(DBusMessage* message) {
    return dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_CALL;
}

bool IsSignal(DBusMessage* message) {
    return dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_SIGNAL;
}

bool IsReply(DBusMessage* message) {
    return !IsCall(message) && !IsSignal(message);
}

std::string MatchRule(const std::string& interface, const std::string& member) {
    return "interface='" + interface + "',member='" + member + "'";
}

/// A call of the bus itself with one string.
MessageRef MakeBusCall(const char* member, const std::string& argument) {
    MessageRef call = MessageRef::Adopt(
        dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, member));
    const char* const text = argument.c_str();
    if (!call || dbus_message_append_args(call.Get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID) == FALSE) {
        throw osa::Exception("MsgBusMsg: Creating msg failed!");
    }
    return call;
}

}  // namespace

/// The implementation: names, handlers and the listen thread, on top of a `BusConnection`, which sends,
/// receives and waits for replies.
///
/// Received messages pass through `_inbox`. Whichever thread reads puts them there; the listen thread takes
/// them out and runs the handlers, one at a time, with the recursive `_busMutex` held. Nothing else takes
/// that mutex for longer than a moment, and no handler holds any other lock of the connection. So other
/// threads send, call and get their replies while a handler runs or waits.
///
/// `_serverMutex` guards starting and stopping; it is held while the listen thread is joined, so it is never
/// taken on that thread. Lock order: `_serverMutex`, `_busMutex`, a handler's mutex, the locks of the
/// connection, the mutexes of the dispatcher, the inbox and the state.
class ZARIP_HIDDEN MsgBus::MsgBusImpl final : public osa::Runnable, private BusConnection::Receiver {
public:
    explicit MsgBusImpl(MsgBus* bus);
    ~MsgBusImpl() override;

    void Send(MsgBusMsgImpl& message);
    MsgBusMsg* Call(MsgBusMsgImpl& message, int timeoutMs);
    void SendReply(MsgBusMsgImpl& message);
    void StartServer(unsigned int stackSize, signed char priority);
    void StopServer(bool wait);
    bool IsRunning() const { return _state.IsRunning(); }
    void RequestName(const std::string& name);
    void ReleaseName(const std::string& name);
    void Register(const std::string& member, const std::string& interface, IMessageHandler* handler);
    void Unregister(IMessageHandler* handler);

    void Run() override;
    void Stop() override;

private:
    void OnReceived(MessageRef message) override;
    void OnLost() override;
    void Keep(MessageRef message, bool isListening);
    void WarnOfDropping(bool isListening);

    void Listen();
    void Dispatch(DBusMessage* message);
    bool DispatchMsg(DBusMessage* message);
    bool DispatchToHandlers(DBusMessage* message);
    void LogReceivedError(DBusMessage* message);
    void LogLostName(DBusMessage* message);
    bool AnswerIntrospect(const MsgBusMsg& call);
    void Refuse(DBusMessage* call, const char* error, const std::string& text);
    void RefuseUnknown(DBusMessage* call);

    Outbox::Patience GetPatience() const;
    bool IsListenThread() const { return t_listener == this; }
    void JoinListenThread() ZARIP_REQUIRES(_serverMutex);
    MessageRef CallBus(MessageRef call, int limitMs, bool mustAsk, DBusErrorRecord& error);
    void AddMatch(const std::string& rule);
    void RemoveMatch(const std::string& rule);

    /// Of the calling thread: the connection whose listen thread it is.
    static thread_local const MsgBusImpl* t_listener;

    MsgBus* _bus;
    core::Logger* _logger;
    osa::Mutex _busMutex{"_busMutex"};
    MessageDispatcher _dispatcher;
    Inbox _inbox;
    ListenState _state;
    std::atomic<bool> _hasWarned{false};  ///< of messages dropped since the inbox was last empty
    bool _isDispatching = false;          ///< of the listen thread

    osa::Mutex _serverMutex{"_serverMutex"};
    std::unique_ptr<osa::Thread> _listenThread ZARIP_GUARDED_BY(_serverMutex);

    BusConnection _connection;  // last, because its thread uses the others
};

thread_local const MsgBus::MsgBusImpl* MsgBus::MsgBusImpl::t_listener = nullptr;

MsgBus::MsgBusImpl::MsgBusImpl(MsgBus* bus)
    : _bus(bus),
      _logger(core::Logger::GetLogger("MsgBus")),
      _dispatcher(_logger),
      _connection(_logger, this) {
    _connection.Start();
}

MsgBus::MsgBusImpl::~MsgBusImpl() {
    StopServer(true);
}

// ------------------------------------------------------------------------------------------------------------
// Sending

/// The listen thread waits for the bus as little as possible, because handlers wait for it.
Outbox::Patience MsgBus::MsgBusImpl::GetPatience() const {
    return IsListenThread() ? Outbox::Patience::kWaitsIfFull : Outbox::Patience::kWaits;
}

void MsgBus::MsgBusImpl::Send(MsgBusMsgImpl& message) {
    DBusMessage* const original = message.Get();
    if (_logger->IsEnabled(core::Logger::kTrace)) {
        _logger->Trace("Sending %s on interface %s", TextOf(dbus_message_get_member(original)),
                       TextOf(dbus_message_get_interface(original)));
    }
    if (IsReply(original) && message.IsSent()) {
        throw osa::Exception("%s", kSendFailed);  // a call has one reply
    }
    MsgBusMsgImpl::Outgoing outgoing = message.MakeOutgoing();
    if (IsCall(original)) {
        // Nobody waits for a reply; without the flag the daemon would keep room for one for ever.
        dbus_message_set_no_reply(outgoing.message.Get(), TRUE);
    }
    if (_connection.Send(std::move(outgoing.message), outgoing.size, GetPatience()) !=
        Outbox::Result::kTaken) {
        throw osa::Exception("%s", kSendFailed);
    }
    message.MarkSent();
}

void MsgBus::MsgBusImpl::SendReply(MsgBusMsgImpl& message) {
    if (_state.IsLost()) {
        return;
    }
    if (message.IsSent() || !IsReply(message.Get())) {
        throw osa::Exception("%s", kSendFailed);
    }
    MsgBusMsgImpl::Outgoing outgoing = message.MakeOutgoing();
    switch (_connection.Send(std::move(outgoing.message), outgoing.size, GetPatience())) {
        case Outbox::Result::kTaken:
            message.MarkSent();
            _logger->Trace("Done sending reply");
            break;
        case Outbox::Result::kFull:
            // Deliberately no exception: the handler that replies could only have it turned into another
            // reply.
            _logger->Error("dbus_connection_send() error: Out of Memory!");
            break;
        case Outbox::Result::kClosed:
            break;
    }
}

MsgBusMsg* MsgBus::MsgBusImpl::Call(MsgBusMsgImpl& message, int timeoutMs) {
    DBusMessage* const original = message.Get();
    const bool isTracing = _logger->IsEnabled(core::Logger::kTrace);
    if (isTracing) {
        _logger->Trace("in SendMsgWaitForReply()...");
        _logger->Trace("Sending %s from interface %s", TextOf(dbus_message_get_member(original)),
                       TextOf(dbus_message_get_interface(original)));
    }
    if (!IsCall(original)) {
        throw osa::Exception("%s", kSendFailed);
    }
    MsgBusMsgImpl::Outgoing outgoing = message.MakeOutgoing();
    // It may be the copy of a message that was sent one-way.
    dbus_message_set_no_reply(outgoing.message.Get(), FALSE);
    message.MarkSent();
    DBusErrorRecord error;
    MessageRef reply =
        _connection.Call(std::move(outgoing.message), outgoing.size, timeoutMs, GetPatience(), error);
    if (error.IsSet()) {
        throw osa::Exception("DBUS call " + std::string(TextOf(dbus_message_get_interface(original))) + "::" +
                             TextOf(dbus_message_get_member(original)) + " failed: " + error.GetMessage());
    }
    if (!reply) {
        throw osa::Exception("failed to get reply");
    }
    if (isTracing) {
        DBusMessage* const received = reply.Get();
        _logger->Trace("Creating MsgBusMsg");
        _logger->Trace("Reply: %s with name=%s on interface %s from %s",
                       dbus_message_type_to_string(dbus_message_get_type(received)),
                       TextOf(dbus_message_get_member(received)),
                       TextOf(dbus_message_get_interface(received)),
                       TextOf(dbus_message_get_sender(received)));
        _logger->Trace("SendMsgWaitForReply() done.");
    }
    auto impl = std::make_unique<MsgBusMsgImpl>(reply.Get(), true);
    reply.Release();
    impl->MarkSent();
    return new MsgBusMsg(impl.release());
}

// ------------------------------------------------------------------------------------------------------------
// Receiving

void MsgBus::MsgBusImpl::OnReceived(MessageRef message) {
    try {
        if (IsListenThread() && !_isDispatching) {
            // It has found the inbox empty and dispatches this next: there is nothing to bound.
            _inbox.Put(message, 0, {kNoLimit, kNoLimit});
            return;
        }
        const bool isListening = _state.IsRunning();
        Keep(std::move(message), isListening);
        if (isListening) {
            _connection.WakeListener();
        }
    } catch (...) {
        _logger->Error("Error handling incoming message: %s", "Out of Memory!");
    }
}

/// Puts a message into the inbox that the listen thread cannot dispatch at once.
void MsgBus::MsgBusImpl::Keep(MessageRef message, bool isListening) {
    DBusMessage* const raw = message.Get();
    if (dbus_message_contains_unix_fds(raw) != FALSE &&
        (!isListening || _inbox.CountWithDescriptors() >= kMaxWithDescriptors)) {
        RefuseUnknown(raw);
        return;
    }
    const std::size_t size = MeasureReceived(raw);
    if (IsSignal(raw) && (isListening || size > kLargeSignal) &&
        ViewOf(dbus_message_get_member(raw)) != "NameLost" &&
        !_dispatcher.Takes(ViewOf(dbus_message_get_interface(raw)), ViewOf(dbus_message_get_member(raw)),
                           IMessageHandler::kSignals)) {
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
            Refuse(raw, DBUS_ERROR_LIMITS_EXCEEDED, "Too many messages wait to be handled");
            break;
    }
}

void MsgBus::MsgBusImpl::WarnOfDropping(bool isListening) {
    if (!_hasWarned.exchange(true)) {
        _logger->Warning("%s: dropping the oldest of %zu messages",
                         isListening ? "The handlers are too slow" : "Nobody listens", _inbox.GetCount());
    }
}

void MsgBus::MsgBusImpl::OnLost() {
    _state.Lose();
    _connection.WakeListener();
}

void MsgBus::MsgBusImpl::Dispatch(DBusMessage* message) {
    const osa::MutexAutoLock lock(&_busMutex);
    _isDispatching = true;
    try {
        if (!DispatchMsg(message)) {
            RefuseUnknown(message);
        }
    } catch (const std::exception& e) {
        _logger->Error("Error handling incoming message: %s", e.what());
    } catch (...) {
        _logger->Error("Error handling incoming message: %s", "unknown");
    }
    _isDispatching = false;
}

bool MsgBus::MsgBusImpl::DispatchMsg(DBusMessage* message) {
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

void MsgBus::MsgBusImpl::LogReceivedError(DBusMessage* message) {
    DBusErrorRecord error;
    dbus_set_error_from_message(error.Get(), message);
    _logger->Error("Got ERROR: %s: %s", error.GetName(), error.GetMessage().c_str());
}

void MsgBus::MsgBusImpl::LogLostName(DBusMessage* message) {
    const char* name = "";
    dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID);
    _logger->Information("Lost connection name: %s", TextOf(name));
}

bool MsgBus::MsgBusImpl::DispatchToHandlers(DBusMessage* message) {
    const MsgBusMsg wrapped(new MsgBusMsgImpl(message, false));
    const std::string_view member = ViewOf(dbus_message_get_member(message));
    std::string_view interface = ViewOf(dbus_message_get_interface(message));
    if (IsSignal(message)) {
        return _dispatcher.Dispatch(wrapped, interface, member, true, *_bus);
    }
    std::string found;
    if (interface.empty()) {
        // The interface of a call is optional: many clients leave it out.
        found = _dispatcher.FindInterface(member);
        interface = found;
    }
    if (DescribedObject::Find(*_bus, ViewOf(dbus_message_get_path(message)), interface) ==
        DescribedObject::Place::kElsewhere) {
        return false;
    }
    return _dispatcher.Dispatch(wrapped, interface, member, false, *_bus) || AnswerIntrospect(wrapped);
}

/// Answers the call if it is Introspect and the path is known.
bool MsgBus::MsgBusImpl::AnswerIntrospect(const MsgBusMsg& call) {
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

/// Answers a call that expects it with an error; does nothing for other messages.
void MsgBus::MsgBusImpl::Refuse(DBusMessage* call, const char* error, const std::string& text) {
    if (IsCall(call) && dbus_message_get_no_reply(call) == FALSE) {
        _connection.Post(MessageRef::Adopt(dbus_message_new_error(call, error, ToErrorText(text).c_str())));
    }
}

/// Answers a call that nobody takes, as libdbus does it.
void MsgBus::MsgBusImpl::RefuseUnknown(DBusMessage* call) {
    if (!IsCall(call)) {
        return;
    }
    const std::string path = TextOf(dbus_message_get_path(call));
    if (DescribedObject::IsUnknown(*_bus, path)) {
        Refuse(call, DBUS_ERROR_UNKNOWN_OBJECT, "There is no object " + path);
        return;
    }
    Refuse(call, DBUS_ERROR_UNKNOWN_METHOD,
           "Method \"" + std::string(TextOf(dbus_message_get_member(call))) + "\" with signature \"" +
               dbus_message_get_signature(call) + "\" on interface \"" +
               TextOf(dbus_message_get_interface(call)) + "\" doesn't exist\n");
}

// ------------------------------------------------------------------------------------------------------------
// The listen thread

void MsgBus::MsgBusImpl::StartServer(unsigned int stackSize, signed char priority) {
    if (IsListenThread()) {
        // A handler that had asked to stop may change its mind.
        _state.TakeStopBack();
        _logger->Warning("listen thread already running");
        return;
    }
    const osa::MutexAutoLock lock(&_serverMutex);
    if (_state.IsListening()) {
        _logger->Warning("listen thread already running");
        return;
    }
    JoinListenThread();
    if (!_state.Begin()) {
        return;
    }
    try {
        _listenThread = std::make_unique<osa::Thread>("MsgBusListenThread", this, stackSize, priority);
        _listenThread->Run();
    } catch (...) {
        _listenThread.reset();
        _state.End();
        throw;
    }
}

void MsgBus::MsgBusImpl::Stop() {
    StopServer(false);
}

void MsgBus::MsgBusImpl::StopServer(bool wait) {
    _logger->Debug("stopping the listen thread...");
    _state.RequestStop(false);
    _connection.WakeListener();
    if (!wait || IsListenThread()) {
        return;
    }
    const osa::MutexAutoLock lock(&_serverMutex);
    if (_listenThread) {
        _logger->Debug("joining the listen thread...");
        JoinListenThread();
        _logger->Debug("_pListenThread is joined.");
    }
}

void MsgBus::MsgBusImpl::JoinListenThread() {
    if (_listenThread) {
        // Once more: somebody may have taken the first request back.
        _state.RequestStop(true);
        _connection.WakeListener();
        _listenThread->Join();
        _listenThread.reset();
    }
}

void MsgBus::MsgBusImpl::Run() {
    t_listener = this;
    _logger->Debug("In MsgBus listen thread...");
    _connection.BeginListening();
    try {
        Listen();
    } catch (const std::exception& e) {
        _logger->Error("Run caught exception: %s", e.what());
    } catch (...) {
        _logger->Error("Run caught exception: %s", "unknown");
    }
    _logger->Debug("Listen loop exiting.");
    _connection.EndListening();
    _state.End();
    t_listener = nullptr;
}

void MsgBus::MsgBusImpl::Listen() {
    for (;;) {
        const ListenState::Next next = _state.GetNext();
        if (next == ListenState::Next::kLeave) {
            return;
        }
        const MessageRef message = _inbox.Take();
        if (message) {
            Dispatch(message.Get());
            continue;
        }
        if (next == ListenState::Next::kDispatchTheRest) {
            return;
        }
        _hasWarned = false;
        _connection.WaitAndRead();
    }
}

// ------------------------------------------------------------------------------------------------------------
// Names and handlers

/// Calls the bus itself. After one time-out nothing is awaited until the bus has shown that it lives, unless
/// the caller must have an answer: the call is sent, and counts as one that timed out.
MessageRef MsgBus::MsgBusImpl::CallBus(MessageRef call, int limitMs, bool mustAsk, DBusErrorRecord& error) {
    const bool waits = mustAsk || !_connection.IsUnresponsive();
    dbus_message_set_no_reply(call.Get(), waits ? FALSE : TRUE);
    constexpr std::size_t kSize = 1024;
    MessageRef reply = _connection.Call(std::move(call), kSize, waits ? limitMs : 0, GetPatience(), error);
    if (dbus_error_has_name(error.Get(), DBUS_ERROR_NO_REPLY) != FALSE) {
        _connection.NoteUnresponsive();
    }
    return reply;
}

void MsgBus::MsgBusImpl::RequestName(const std::string& name) {
    _logger->Trace("calling dbus_bus_request_name() with name = %s", name.c_str());
    if (!IsValidBusName(name.c_str())) {
        throw osa::Exception("dbus_bus_request_name failed for " + name + "Requested bus name is not valid");
    }
    DBusErrorRecord error;
    MessageRef call = MakeBusCall("RequestName", name);
    const dbus_uint32_t flags = kNameFlags;
    dbus_message_append_args(call.Get(), DBUS_TYPE_UINT32, &flags, DBUS_TYPE_INVALID);
    const MessageRef reply = CallBus(std::move(call), kAskLimitMs, true, error);
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

void MsgBus::MsgBusImpl::ReleaseName(const std::string& name) {
    if (_state.IsLost()) {
        return;  // the bus gave it up with the connection
    }
    DBusErrorRecord error;
    if (IsValidBusName(name.c_str())) {
        CallBus(MakeBusCall("ReleaseName", name), kGiveUpLimitMs, false, error);
    } else {
        dbus_set_error_const(error.Get(), DBUS_ERROR_INVALID_ARGS, "Bus name is not valid");
    }
    if (error.IsSet()) {
        _logger->Error("dbus_bus_release_name(%s) failed: %s", name.c_str(), error.GetMessage().c_str());
    }
}

void MsgBus::MsgBusImpl::Register(const std::string& member, const std::string& interface,
                                  IMessageHandler* handler) {
    if (handler == nullptr) {
        throw osa::Exception("MsgBus: handler is null");
    }
    _logger->Information("Registering interface %s and name %s for callback", interface.c_str(),
                         member.c_str());
    _dispatcher.Add(interface, member, handler);
    AddMatch(MatchRule(interface, member));
}

void MsgBus::MsgBusImpl::AddMatch(const std::string& rule) {
    DBusErrorRecord error;
    if (IsValidText(rule.c_str())) {
        CallBus(MakeBusCall("AddMatch", rule), kAskLimitMs, false, error);
    } else {
        dbus_set_error_const(error.Get(), DBUS_ERROR_MATCH_RULE_INVALID, "Match rule is not valid UTF-8");
    }
    if (error.IsSet()) {
        _logger->Error("dbus_bus_add_match(%s) failed: %s", rule.c_str(), error.GetMessage().c_str());
    } else {
        _logger->Trace("Match rule applied: %s", rule.c_str());
    }
}

void MsgBus::MsgBusImpl::RemoveMatch(const std::string& rule) {
    DBusErrorRecord error;
    _logger->Trace("Calling dbus_bus_remove_match(%s)", rule.c_str());
    if (!_state.IsLost() && IsValidText(rule.c_str())) {
        CallBus(MakeBusCall("RemoveMatch", rule), kGiveUpLimitMs, false, error);
    }
    if (error.IsSet()) {
        _logger->Error("dbus_bus_remove_match(%s) failed: %s", rule.c_str(), error.GetMessage().c_str());
    } else {
        _logger->Trace("Match rule removed: %s", rule.c_str());
    }
}

void MsgBus::MsgBusImpl::Unregister(IMessageHandler* handler) {
    try {
        const auto places = _dispatcher.Remove(handler);
        if (places.empty()) {
            throw osa::Exception("the handler is not registered");
        }
        for (const auto& [interface, member] : places) {
            RemoveMatch(MatchRule(interface, member));
        }
    } catch (const std::exception& e) {
        _logger->Error("Failed to unregister message handler: %s", e.what());
    } catch (...) {
        _logger->Error("Failed to unregister message handler: %s", "unknown");
    }
}

// ------------------------------------------------------------------------------------------------------------

MsgBus::MsgBus() : _impl(std::make_unique<MsgBusImpl>(this)) {}

MsgBus::~MsgBus() = default;

void MsgBus::SendMsg(const MsgBusMsg& message) {
    _impl->Send(*message._impl);
}

void MsgBus::SendMsgWaitForReply(const MsgBusMsg& message, MsgBusMsg*& reply, int timeoutMs) {
    reply = _impl->Call(*message._impl, timeoutMs);
}

void MsgBus::SendReply(const MsgBusMsg& message) {
    _impl->SendReply(*message._impl);
}

void MsgBus::StartServer() {
    _impl->StartServer(0, 0);
}

void MsgBus::StartServer(unsigned int stackSize, signed char priority) {
    _impl->StartServer(stackSize, priority);
}

void MsgBus::StopServer() {
    _impl->StopServer(true);
}

void MsgBus::StopServer(bool wait) {
    _impl->StopServer(wait);
}

void MsgBus::RegisterDestinationName(const std::string& name) {
    _impl->RequestName(name);
}

void MsgBus::UnregisterDestinationName(const std::string& name) {
    _impl->ReleaseName(name);
}

bool MsgBus::IsRunning() const {
    return _impl->IsRunning();
}

void MsgBus::RegisterMessageHandler(const std::string& member, const std::string& interface,
                                    IMessageHandler* handler) {
    _impl->Register(member, interface, handler);
}

void MsgBus::UnregisterMessageHandler(IMessageHandler* handler) {
    _impl->Unregister(handler);
}

}  // namespace zarip::msgbus
