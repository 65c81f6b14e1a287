#include "zarip/msgbus/MsgBus.h"

#include <dbus/dbus.h>
#include <poll.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <deque>

#include "msgbus/DBusText.h"
#include "msgbus/DBusWatcher.h"
#include "msgbus/DescribedObject.h"
#include "msgbus/MessageDispatcher.h"
#include "msgbus/MsgBusMsgImpl.h"
#include "osa/Wait.h"
#include "zarip/core/Logger.h"
#include "zarip/msgbus/MsgBusMsg.h"
#include "zarip/osa/Exception.h"
#include "zarip/osa/LockException.h"
#include "zarip/osa/Mutex.h"
#include "zarip/osa/MutexAutoLock.h"
#include "zarip/osa/Runnable.h"
#include "zarip/osa/Semaphore.h"
#include "zarip/osa/Thread.h"

namespace zarip::msgbus {

namespace {

constexpr unsigned int kWatcherStackSize = 32768;
constexpr unsigned int kNameFlags = DBUS_NAME_FLAG_REPLACE_EXISTING | DBUS_NAME_FLAG_DO_NOT_QUEUE;
/// The daemon closes the connection over a longer message; the rest is for the header.
constexpr std::size_t kMaxBodySize = 32 * 1024 * 1024 - 4096;
constexpr long kMaxOutgoingSize = 64 * 1024 * 1024;
constexpr std::size_t kMaxBacklog = 1000;
/// At twice this size the bus library stops reading, and then a waiting call would not get its reply.
constexpr std::size_t kMaxBacklogSize = 32 * 1024 * 1024;
/// How long a sender waits for a bus that does not read before it leaves the rest to the watcher.
constexpr int kWriteLimitMs = 100;
constexpr int kLastWriteLimitMs = 1000;

/// What a queued message takes beside its arguments: an empty one costs memory as well.
constexpr std::size_t kOverheadOfMessage = 512;

constexpr const char* kSendFailed = "dbus_connection_send failed";

enum class Sent { kDone, kLost, kRefused };

/// A libdbus error record, freed at the end of the scope.
class Error {
public:
    Error() { dbus_error_init(&_error); }
    Error(const Error&) = delete;
    Error& operator=(const Error&) = delete;
    ~Error() { dbus_error_free(&_error); }

    DBusError* Get() { return &_error; }
    bool IsSet() const { return dbus_error_is_set(&_error) != FALSE; }
    std::string Message() const { return _error.message != nullptr ? _error.message : ""; }
    const char* Name() const { return _error.name != nullptr ? _error.name : ""; }

private:
    DBusError _error{};
};

/// Sets a flag for the length of a scope.
class Scope {
public:
    explicit Scope(bool& flag) : _flag(flag) { _flag = true; }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    ~Scope() { _flag = false; }

private:
    bool& _flag;
};

/// A reference to a message.
class MessageRef {
public:
    explicit MessageRef(DBusMessage* message) : _message(dbus_message_ref(message)) {}
    MessageRef(MessageRef&& other) noexcept : _message(std::exchange(other._message, nullptr)) {}
    MessageRef& operator=(MessageRef&& other) noexcept {
        std::swap(_message, other._message);
        return *this;
    }
    ~MessageRef() {
        if (_message != nullptr) {
            dbus_message_unref(_message);
        }
    }
    DBusMessage* Get() const { return _message; }

private:
    DBusMessage* _message;
};

std::string_view View(const char* text) {
    return text != nullptr ? text : std::string_view();
}

const char* Text(const char* text) {
    return text != nullptr ? text : "";
}

bool IsSignal(DBusMessage* message) {
    return dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_SIGNAL;
}

/// The bus library tells the size of a message only by writing it down.
std::size_t MarshalledSize(DBusMessage* message) {
    char* data = nullptr;
    int size = 0;
    if (dbus_message_marshal(message, &data, &size) == FALSE) {
        return 0;
    }
    dbus_free(data);
    return static_cast<std::size_t>(size);
}

/// Whether the bus takes the message; it closes the connection over one that it does not.
bool IsSendable(DBusMessage* message, std::size_t size) {
    if (size > kMaxBodySize) {
        return false;
    }
    switch (dbus_message_get_type(message)) {
        case DBUS_MESSAGE_TYPE_METHOD_CALL:
            return dbus_message_get_path(message) != nullptr && dbus_message_get_member(message) != nullptr;
        case DBUS_MESSAGE_TYPE_SIGNAL:
            return dbus_message_get_path(message) != nullptr && dbus_message_get_member(message) != nullptr &&
                   dbus_message_get_interface(message) != nullptr;
        default:
            return dbus_message_get_reply_serial(message) != 0;
    }
}

}  // namespace

/// The connection.
///
/// `_busMutex` guards every libdbus call on it, and is held by the listen thread while it dispatches and by a
/// waiting call until its reply is there. Whoever holds it also owns the right to send: the others put
/// one-way messages into
/// `_outgoing` (guarded by `_outgoingMutex`, a leaf) and leave; the holder sends them before and after it
/// lets go.
///
/// Reading is done by the listen thread while it is idle, by DBusWatcher where there is none, and by a
/// waiting call for itself. `_dispatchAvailable` tells the listen thread that somebody else has read whole
/// messages. While nobody listens they are moved to `_backlog`.
///
/// `_serverMutex` guards starting and stopping; it is held while the listen thread is joined, so it is never
/// taken on that thread. Order: `_serverMutex`, `_busMutex`, then `_watchMutex`, `_outgoingMutex` or the
/// dispatcher's mutex.
class ZARIP_HIDDEN MsgBus::MsgBusImpl final : public osa::Runnable {
public:
    explicit MsgBusImpl(MsgBus* bus);
    ~MsgBusImpl() override;

    void Send(MsgBusMsgImpl& message);
    DBusMessage* Call(MsgBusMsgImpl& message, int timeoutMs);
    void SendReply(MsgBusMsgImpl& message);
    void Start(unsigned int stackSize, signed char priority);
    void StopServer(bool wait);
    bool IsRunning() const { return _running; }
    void RequestName(const std::string& name);
    void ReleaseName(const std::string& name);
    void Register(const std::string& member, const std::string& interface, IMessageHandler* handler);
    void Unregister(IMessageHandler* handler);

    void Run() override;
    void Stop() override;

    core::Logger* GetLogger() const { return _logger; }

private:
    /// Holds the connection, and hands it on with nothing left to send.
    class ZARIP_SCOPED_CAPABILITY BusLock {
    public:
        explicit BusLock(MsgBusImpl& impl) ZARIP_ACQUIRE(impl._busMutex) : _impl(impl) {
            _impl._busMutex.Lock();
        }
        BusLock(const BusLock&) = delete;
        BusLock& operator=(const BusLock&) = delete;
        ~BusLock() ZARIP_RELEASE() { _impl.Leave(); }

    private:
        MsgBusImpl& _impl;
    };

    static DBusHandlerResult OnMessage(DBusConnection* connection, DBusMessage* message, void* impl);

    Sent SendOneWay(DBusMessage* message, std::size_t size);
    Sent TrySend(DBusMessage* message) ZARIP_REQUIRES(_busMutex);
    bool Queue(DBusMessage* message, std::size_t size);
    void SendQueued() ZARIP_REQUIRES(_busMutex);
    void Write(int limitMs) ZARIP_REQUIRES(_busMutex);
    void Leave() noexcept ZARIP_RELEASE(_busMutex);

    void AfterReading() ZARIP_REQUIRES(_busMutex);
    void WakeListenThread();
    void OnReady(unsigned int flags);
    void OnDisconnected() ZARIP_REQUIRES(_busMutex);
    void KeepForLater(DBusMessage* message) ZARIP_REQUIRES(_busMutex);
    void DropOldest() ZARIP_REQUIRES(_busMutex);
    void DispatchAvailable() ZARIP_REQUIRES(_busMutex);
    void DispatchBacklog() ZARIP_REQUIRES(_busMutex);
    bool DispatchMsg(DBusMessage* message);
    void RefuseUnknown(DBusMessage* call) ZARIP_REQUIRES(_busMutex);
    void RequestStop();
    void JoinListenThread() ZARIP_REQUIRES(_serverMutex);
    void AddMatch(const std::string& rule);
    void RemoveMatch(const std::string& rule);
    bool IsListenThread() const;
    bool IsConnected() const { return _connected; }

    MsgBus* _bus;
    core::Logger* _logger;
    osa::Mutex _busMutex{"_busMutex"};
    DBusConnection* _connection ZARIP_GUARDED_BY(_busMutex) = nullptr;
    osa::Semaphore _dispatchAvailable{"_dispatchAvailable", 100, 0};
    MessageDispatcher _dispatcher;
    DBusWatcher _watcher;

    std::atomic<bool> _connected{true};
    std::atomic<bool> _running{false};
    std::atomic<bool> _stopRequested{false};
    std::atomic<bool> _joining{false};  ///< no handler takes back a stop that somebody waits for
    std::atomic<pthread_t> _listenThreadId{};

    bool _dispatching ZARIP_GUARDED_BY(_busMutex) = false;
    bool _keeping ZARIP_GUARDED_BY(_busMutex) = false;
    bool _backlogWarned ZARIP_GUARDED_BY(_busMutex) = false;
    /// The bus did not read for kWriteLimitMs: senders do not wait for it until all was written.
    bool _stalled ZARIP_GUARDED_BY(_busMutex) = false;
    struct Kept {
        MessageRef message;
        std::size_t size;
    };
    std::deque<Kept> _backlog ZARIP_GUARDED_BY(_busMutex);
    std::size_t _backlogSize ZARIP_GUARDED_BY(_busMutex) = 0;

    osa::Mutex _outgoingMutex{"_outgoingMutex"};
    std::deque<MessageRef> _outgoing ZARIP_GUARDED_BY(_outgoingMutex);
    std::size_t _outgoingSize ZARIP_GUARDED_BY(_outgoingMutex) = 0;
    std::atomic<std::size_t> _outgoingCount{0};

    osa::Mutex _serverMutex{"_serverMutex"};
    std::unique_ptr<osa::Thread> _listenThread ZARIP_GUARDED_BY(_serverMutex);
    osa::Thread _watcherThread;
};

namespace {

core::Logger* InitialiseLibrary() {
    // Before the first connection, so that libdbus locks for its own part.
    dbus_threads_init_default();
    return core::Logger::GetLogger("MsgBus");
}

}  // namespace

MsgBus::MsgBusImpl::MsgBusImpl(MsgBus* bus)
    : _bus(bus),
      _logger(InitialiseLibrary()),
      _dispatcher(_logger),
      _watcher(_logger, [this](unsigned int flags) { OnReady(flags); }),
      _watcherThread("DBusWatcher", &_watcher, kWatcherStackSize, 0) {
    Error error;
    DBusConnection* const connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, error.Get());
    if (error.IsSet()) {
        throw osa::Exception("dbus_bus_get_private failed: " + error.Message());
    }
    if (connection == nullptr) {
        throw osa::Exception("dbus_bus_get_private returned NULL");
    }
    const BusLock lock(*this);
    _connection = connection;
    dbus_connection_set_exit_on_disconnect(_connection, FALSE);
    try {
        if (dbus_connection_add_filter(_connection, &OnMessage, this, nullptr) == FALSE) {
            throw osa::Exception("dbus_connection_add_filter failed");
        }
        _watcher.Attach(_connection);
    } catch (...) {
        dbus_connection_close(_connection);
        dbus_connection_unref(_connection);
        _connection = nullptr;
        throw;
    }
    AfterReading();
    _watcherThread.Run();
}

MsgBus::MsgBusImpl::~MsgBusImpl() {
    StopServer(true);
    {
        const BusLock lock(*this);
        SendQueued();
        _stalled = false;
        Write(kLastWriteLimitMs);
    }
    _watcher.Stop();
    _watcherThread.Join();
    const BusLock lock(*this);
    // Closing gives up the names as well.
    dbus_connection_remove_filter(_connection, &OnMessage, this);
    _watcher.Detach(_connection);
    dbus_connection_close(_connection);
    dbus_connection_unref(_connection);
    _connection = nullptr;
}

// ------------------------------------------------------------------------------------------------------------
// Sending

void MsgBus::MsgBusImpl::Send(MsgBusMsgImpl& message) {
    DBusMessage* const original = message.Get();
    if (_logger->IsEnabled(core::Logger::kTrace)) {
        _logger->Trace("Sending %s on interface %s", Text(dbus_message_get_member(original)),
                       Text(dbus_message_get_interface(original)));
    }
    if (message.IsSent()) {
        // Its serial number is used up.
        DBusMessage* const copy = dbus_message_copy(original);
        MsgBusMsgImpl owner(copy, true);
        owner.SetSize(message.GetSize());
        Send(owner);
        return;
    }
    if (!IsSendable(original, message.GetSize())) {
        throw osa::Exception("%s", kSendFailed);
    }
    if (dbus_message_get_type(original) == DBUS_MESSAGE_TYPE_METHOD_CALL) {
        // Nobody waits for a reply; without the flag the daemon would keep room for one for ever.
        dbus_message_set_no_reply(original, TRUE);
    }
    if (SendOneWay(original, message.GetSize()) != Sent::kDone) {
        throw osa::Exception("%s", kSendFailed);
    }
    message.MarkSent();
}

void MsgBus::MsgBusImpl::SendReply(MsgBusMsgImpl& message) {
    if (!IsConnected()) {
        return;
    }
    if (message.IsSent() || !IsSendable(message.Get(), message.GetSize())) {
        throw osa::Exception("%s", kSendFailed);
    }
    switch (SendOneWay(message.Get(), message.GetSize())) {
        case Sent::kDone:
            message.MarkSent();
            _logger->Trace("Done sending reply");
            break;
        case Sent::kRefused:
            // Deliberately no exception: the handler that replies could only have it turned into another
            // reply.
            _logger->Error("dbus_connection_send() error: Out of Memory!");
            break;
        case Sent::kLost:
            break;
    }
}

Sent MsgBus::MsgBusImpl::SendOneWay(DBusMessage* message, std::size_t size) {
    if (!_busMutex.TryLock()) {
        // Somebody holds the connection, maybe for long. He looks at the queue after letting go; if he has
        // let go before the message was in it, the lock is free now.
        if (!IsConnected()) {
            return Sent::kLost;
        }
        if (!Queue(message, size)) {
            return Sent::kRefused;
        }
        std::atomic_thread_fence(std::memory_order_seq_cst);
        if (_busMutex.TryLock()) {
            Leave();
        }
        return Sent::kDone;
    }
    Sent result = Sent::kRefused;
    try {
        SendQueued();
        result = TrySend(message);
        Write(kWriteLimitMs);
    } catch (const std::bad_alloc&) {
        // Refused, as the bus library does it where memory is short.
    }
    Leave();
    return result;
}

Sent MsgBus::MsgBusImpl::TrySend(DBusMessage* message) {
    if (dbus_connection_get_is_connected(_connection) == FALSE) {
        return Sent::kLost;
    }
    const bool isFull = _stalled && dbus_connection_get_outgoing_size(_connection) > kMaxOutgoingSize;
    return !isFull && dbus_connection_send(_connection, message, nullptr) != FALSE ? Sent::kDone
                                                                                   : Sent::kRefused;
}

bool MsgBus::MsgBusImpl::Queue(DBusMessage* message, std::size_t size) {
    const osa::MutexAutoLock lock(&_outgoingMutex);
    if (_outgoingSize > static_cast<std::size_t>(kMaxOutgoingSize)) {
        return false;
    }
    _outgoing.emplace_back(message);
    _outgoingSize += size + kOverheadOfMessage;
    _outgoingCount = _outgoing.size();
    return true;
}

void MsgBus::MsgBusImpl::SendQueued() {
    if (_outgoingCount == 0) {
        return;
    }
    std::deque<MessageRef> messages;
    {
        const osa::MutexAutoLock lock(&_outgoingMutex);
        messages.swap(_outgoing);
        _outgoingSize = 0;
        _outgoingCount = 0;
    }
    const auto failed = std::count_if(messages.begin(), messages.end(),
                                      [this](const MessageRef& message) ZARIP_NO_THREAD_SAFETY_ANALYSIS {
                                          return TrySend(message.Get()) != Sent::kDone;
                                      });
    if (failed != 0) {
        _logger->Error("%s: %td queued messages are lost", kSendFailed, failed);
    }
    Write(kWriteLimitMs);
}

void MsgBus::MsgBusImpl::Write(int limitMs) {
    if (dbus_connection_has_messages_to_send(_connection) == FALSE) {
        _stalled = false;
        return;
    }
    if (_stalled) {
        return;
    }
    const long long end = osa::NowMs() + limitMs;
    while (dbus_connection_has_messages_to_send(_connection) != FALSE && IsConnected()) {
        const long long left = end - osa::NowMs();
        if (left <= 0 || !_watcher.Write(static_cast<int>(left))) {
            _stalled = true;
            break;
        }
    }
}

void MsgBus::MsgBusImpl::Leave() noexcept ZARIP_NO_THREAD_SAFETY_ANALYSIS {
    do {
        try {
            SendQueued();
            if (_connection != nullptr && IsConnected() && !_watcher.HasDescriptor()) {
                // Sending met the end of the connection: its descriptor wakes nobody any more.
                AfterReading();
            }
        } catch (...) {
            _logger->Error("%s", kSendFailed);
        }
        _watcher.Apply();
        _busMutex.Release();
        std::atomic_thread_fence(std::memory_order_seq_cst);
    } while (_outgoingCount != 0 && _busMutex.TryLock());
}

DBusMessage* MsgBus::MsgBusImpl::Call(MsgBusMsgImpl& message, int timeoutMs) {
    DBusMessage* const original = message.Get();
    if (_logger->IsEnabled(core::Logger::kTrace)) {
        _logger->Trace("in SendMsgWaitForReply()...");
        _logger->Trace("Sending %s from interface %s", Text(dbus_message_get_member(original)),
                       Text(dbus_message_get_interface(original)));
    }
    if (message.IsSent()) {
        DBusMessage* const copy = dbus_message_copy(original);
        MsgBusMsgImpl owner(copy, true);
        owner.SetSize(message.GetSize());
        return Call(owner, timeoutMs);
    }
    if (dbus_message_get_type(original) != DBUS_MESSAGE_TYPE_METHOD_CALL ||
        !IsSendable(original, message.GetSize())) {
        throw osa::Exception("%s", kSendFailed);
    }
    // It may be the copy of a message that was sent one-way.
    dbus_message_set_no_reply(original, FALSE);
    Error error;
    DBusMessage* reply = nullptr;
    {
        const BusLock lock(*this);
        SendQueued();
        message.MarkSent();
        // On the listen thread nobody else waits for the descriptor.
        const bool others = !IsListenThread();
        if (others) {
            _watcher.Pause();
        }
        reply = dbus_connection_send_with_reply_and_block(_connection, original, std::max(timeoutMs, -1),
                                                          error.Get());
        if (others) {
            _watcher.Resume();
        }
        AfterReading();
    }
    if (error.IsSet()) {
        throw osa::Exception("DBUS call " + std::string(Text(dbus_message_get_interface(original))) +
                             "::" + Text(dbus_message_get_member(original)) + " failed: " + error.Message());
    }
    if (reply == nullptr) {
        throw osa::Exception("failed to get reply");
    }
    if (_logger->IsEnabled(core::Logger::kTrace)) {
        _logger->Trace("Creating MsgBusMsg");
        _logger->Trace("Reply: %s with name=%s on interface %s from %s",
                       dbus_message_type_to_string(dbus_message_get_type(reply)),
                       Text(dbus_message_get_member(reply)), Text(dbus_message_get_interface(reply)),
                       Text(dbus_message_get_sender(reply)));
        _logger->Trace("SendMsgWaitForReply() done.");
    }
    return reply;
}

// ------------------------------------------------------------------------------------------------------------
// Receiving

void MsgBus::MsgBusImpl::OnReady(unsigned int flags) {
    const BusLock lock(*this);
    _watcher.Handle(flags);
    AfterReading();
}

/// Sees to it that what was read is dispatched: now on, by the thread that dispatches already; soon, by the
/// listen thread; or later, from the backlog.
void MsgBus::MsgBusImpl::AfterReading() {
    if (_dispatching || dbus_connection_get_dispatch_status(_connection) == DBUS_DISPATCH_COMPLETE) {
        return;
    }
    if (_running) {
        WakeListenThread();
        return;
    }
    const Scope keeping(_keeping);
    DispatchAvailable();
}

void MsgBus::MsgBusImpl::WakeListenThread() {
    try {
        _dispatchAvailable.Release();
    } catch (const osa::LockException&) {
        // Full: the thread was woken a hundred times and has not come to it yet.
    }
    _watcher.Wake();
}

void MsgBus::MsgBusImpl::DispatchAvailable() {
    if (_dispatching) {
        return;
    }
    const Scope dispatching(_dispatching);
    for (;;) {
        const DBusDispatchStatus status = dbus_connection_dispatch(_connection);
        if (status == DBUS_DISPATCH_NEED_MEMORY) {
            ::poll(nullptr, 0, 10);
        } else if (status == DBUS_DISPATCH_COMPLETE || (!_keeping && _stopRequested)) {
            break;
        }
        SendQueued();
    }
}

DBusHandlerResult MsgBus::MsgBusImpl::OnMessage(DBusConnection* /*connection*/, DBusMessage* message,
                                                void* impl) ZARIP_NO_THREAD_SAFETY_ANALYSIS {
    auto* const self = static_cast<MsgBusImpl*>(impl);
    try {
        if (dbus_message_is_signal(message, DBUS_INTERFACE_LOCAL, "Disconnected") != FALSE) {
            self->OnDisconnected();
            return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        }
        if (self->_keeping) {
            self->KeepForLater(message);
            return DBUS_HANDLER_RESULT_HANDLED;
        }
        // A call that nobody takes is answered by the bus library: unknown method.
        return self->DispatchMsg(message) ? DBUS_HANDLER_RESULT_HANDLED : DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    } catch (const std::exception& e) {
        self->_logger->Error("Error handling incoming message: %s", e.what());
    } catch (...) {
        self->_logger->Error("Error handling incoming message: %s", "unknown");
    }
    return DBUS_HANDLER_RESULT_HANDLED;
}

void MsgBus::MsgBusImpl::OnDisconnected() {
    _connected = false;
    _logger->Error("The connection to the bus is lost");
    RequestStop();
}

void MsgBus::MsgBusImpl::KeepForLater(DBusMessage* message) {
    if (dbus_message_contains_unix_fds(message) != FALSE) {
        RefuseUnknown(message);  // no handler reads descriptors, so they are not left open
        return;
    }
    const std::size_t size = MarshalledSize(message);
    while (!_backlog.empty() && (_backlog.size() >= kMaxBacklog || _backlogSize + size > kMaxBacklogSize)) {
        DropOldest();
    }
    _backlog.push_back({MessageRef(message), size});
    _backlogSize += size;
}

void MsgBus::MsgBusImpl::DropOldest() {
    if (!_backlogWarned) {
        _backlogWarned = true;
        _logger->Warning("Nobody listens: dropping the oldest of %zu messages", _backlog.size());
    }
    auto oldest = std::find_if(_backlog.begin(), _backlog.end(),
                               [](const Kept& kept) { return IsSignal(kept.message.Get()); });
    if (oldest == _backlog.end()) {
        oldest = _backlog.begin();
        RefuseUnknown(oldest->message.Get());
    }
    _backlogSize -= oldest->size;
    _backlog.erase(oldest);
}

void MsgBus::MsgBusImpl::DispatchBacklog() {
    while (!_backlog.empty() && !_stopRequested) {
        const MessageRef message = std::move(_backlog.front().message);
        _backlogSize -= _backlog.front().size;
        _backlog.pop_front();
        try {
            if (!DispatchMsg(message.Get())) {
                RefuseUnknown(message.Get());
            }
        } catch (const std::exception& e) {
            _logger->Error("Error handling incoming message: %s", e.what());
        } catch (...) {
            _logger->Error("Error handling incoming message: %s", "unknown");
        }
        SendQueued();
    }
    _backlogWarned = false;
}

/// Answers a kept call that nobody takes, as the bus library does for one that was not kept.
void MsgBus::MsgBusImpl::RefuseUnknown(DBusMessage* call) {
    if (dbus_message_get_type(call) != DBUS_MESSAGE_TYPE_METHOD_CALL ||
        dbus_message_get_no_reply(call) != FALSE) {
        return;
    }
    DBusMessage* const error =
        dbus_message_new_error_printf(call, DBUS_ERROR_UNKNOWN_METHOD,
                                      "Method \"%s\" with signature \"%s\" on interface \"%s\" doesn't exist",
                                      Text(dbus_message_get_member(call)), dbus_message_get_signature(call),
                                      Text(dbus_message_get_interface(call)));
    if (error != nullptr) {
        const MsgBusMsgImpl owner(error, true);
        TrySend(error);
    }
}

bool MsgBus::MsgBusImpl::DispatchMsg(DBusMessage* message) {
    const char* const member = dbus_message_get_member(message);
    const char* const interface = dbus_message_get_interface(message);
    const int type = dbus_message_get_type(message);
    if (_logger->IsEnabled(core::Logger::kTrace)) {
        _logger->Trace("Received a %s with name=%s on interface %s from %s",
                       dbus_message_type_to_string(type), Text(member), Text(interface),
                       Text(dbus_message_get_sender(message)));
    }
    switch (type) {
        case DBUS_MESSAGE_TYPE_METHOD_RETURN:
            _logger->Warning("Just rcvd a method reply, we're not supposed to!");
            return true;
        case DBUS_MESSAGE_TYPE_ERROR: {
            Error error;
            dbus_set_error_from_message(error.Get(), message);
            _logger->Error("Got ERROR: %s: %s", error.Name(), error.Message().c_str());
            return true;
        }
        case DBUS_MESSAGE_TYPE_METHOD_CALL:
        case DBUS_MESSAGE_TYPE_SIGNAL:
            break;
        default:
            return false;
    }
    const bool isSignal = type == DBUS_MESSAGE_TYPE_SIGNAL;
    if (isSignal && View(member) == "NameLost") {
        const char* name = "";
        dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID);
        _logger->Information("Lost connection name: %s", Text(name));
        return true;
    }
    const MsgBusMsg wrapped(new MsgBusMsgImpl(message, false));
    return _dispatcher.Dispatch(wrapped, View(interface), View(member), isSignal, *_bus) ||
           AnswerIntrospect(wrapped, *_bus);
}

// ------------------------------------------------------------------------------------------------------------
// The listen thread

bool MsgBus::MsgBusImpl::IsListenThread() const {
    return _running && ::pthread_equal(_listenThreadId, ::pthread_self()) != 0;
}

void MsgBus::MsgBusImpl::Start(unsigned int stackSize, signed char priority) {
    if (IsListenThread()) {
        // A handler that had asked to stop has thought better of it.
        _stopRequested = false;
        if (_joining || !IsConnected()) {
            _stopRequested = true;
        }
        _logger->Warning("listen thread already running");
        return;
    }
    const osa::MutexAutoLock lock(&_serverMutex);
    if (_running && !_stopRequested) {
        _logger->Warning("listen thread already running");
        return;
    }
    if (_listenThread) {
        JoinListenThread();
    }
    _listenThread = std::make_unique<osa::Thread>("MsgBusListenThread", this, stackSize, priority);
    // In this order: the connection may be lost at any moment.
    _stopRequested = false;
    if (!IsConnected()) {
        _stopRequested = true;
    }
    _running = true;
    _listenThread->Run();
}

void MsgBus::MsgBusImpl::Stop() {
    StopServer(false);
}

void MsgBus::MsgBusImpl::StopServer(bool wait) {
    _logger->Debug("stopping the listen thread...");
    RequestStop();
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

void MsgBus::MsgBusImpl::RequestStop() {
    _stopRequested = true;
    WakeListenThread();
}

void MsgBus::MsgBusImpl::JoinListenThread() {
    _joining = true;
    RequestStop();  // again: somebody may have started the thread, or gone on with it, since it was asked
    _listenThread->Join();
    _listenThread.reset();
    _joining = false;
}

void MsgBus::MsgBusImpl::Run() {
    _listenThreadId = ::pthread_self();
    _logger->Debug("In MsgBus listen thread...");
    try {
        {
            const BusLock lock(*this);
            _watcher.GiveAway();
            {
                const Scope dispatching(_dispatching);
                DispatchBacklog();
            }
            DispatchAvailable();
        }
        while (!_stopRequested) {
            // Who released the semaphore may have read for this thread; otherwise it reads for itself.
            const unsigned int ready = _dispatchAvailable.TryLock(0) ? 0 : _watcher.Wait();
            const BusLock lock(*this);
            _watcher.Handle(ready);
            DispatchAvailable();
        }
    } catch (const std::exception& e) {
        _logger->Error("Run caught exception: %s", e.what());
    } catch (...) {
        _logger->Error("Run caught exception: %s", "unknown");
    }
    _logger->Debug("Listen loop exiting.");
    const BusLock lock(*this);
    _listenThreadId = pthread_t{};  // the next thread of the process may get this id
    _running = false;
    _watcher.TakeBack();
    AfterReading();
}

// ------------------------------------------------------------------------------------------------------------
// Names and handlers

void MsgBus::MsgBusImpl::RequestName(const std::string& name) {
    _logger->Trace("calling dbus_bus_request_name() with name = %s", name.c_str());
    if (!IsValidBusName(name.c_str())) {
        throw osa::Exception("dbus_bus_request_name failed for " + name + "Requested bus name is not valid");
    }
    Error error;
    int result = 0;
    {
        const BusLock lock(*this);
        SendQueued();
        result = dbus_bus_request_name(_connection, name.c_str(), kNameFlags, error.Get());
        AfterReading();
    }
    if (error.IsSet()) {
        throw osa::Exception("dbus_bus_request_name failed for " + name + error.Message());
    }
    if (result != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER && result != DBUS_REQUEST_NAME_REPLY_ALREADY_OWNER) {
        throw osa::Exception("error requesting name or not primary owner");
    }
}

void MsgBus::MsgBusImpl::ReleaseName(const std::string& name) {
    if (!IsConnected()) {
        return;  // the bus gave it up with the connection
    }
    Error error;
    if (IsValidBusName(name.c_str())) {
        const BusLock lock(*this);
        SendQueued();
        dbus_bus_release_name(_connection, name.c_str(), error.Get());
        AfterReading();
    } else {
        dbus_set_error_const(error.Get(), DBUS_ERROR_INVALID_ARGS, "Bus name is not valid");
    }
    if (error.IsSet()) {
        _logger->Error("dbus_bus_release_name(%s) failed: %s", name.c_str(), error.Message().c_str());
    }
}

namespace {

std::string MatchRule(const std::string& interface, const std::string& member) {
    return "interface='" + interface + "',member='" + member + "'";
}

}  // namespace

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
    Error error;
    if (IsValidText(rule.c_str())) {
        const BusLock lock(*this);
        SendQueued();
        dbus_bus_add_match(_connection, rule.c_str(), error.Get());
        AfterReading();
    } else {
        dbus_set_error_const(error.Get(), DBUS_ERROR_MATCH_RULE_INVALID, "Match rule is not valid UTF-8");
    }
    if (error.IsSet()) {
        _logger->Error("dbus_bus_add_match(%s) failed: %s", rule.c_str(), error.Message().c_str());
    } else {
        _logger->Trace("Match rule applied: %s", rule.c_str());
    }
}

void MsgBus::MsgBusImpl::RemoveMatch(const std::string& rule) {
    Error error;
    _logger->Trace("Calling dbus_bus_remove_match(%s)", rule.c_str());
    {
        const BusLock lock(*this);
        SendQueued();
        if (IsConnected() && IsValidText(rule.c_str())) {
            dbus_bus_remove_match(_connection, rule.c_str(), error.Get());
            AfterReading();
        }
    }
    if (error.IsSet()) {
        _logger->Error("dbus_bus_remove_match(%s) failed: %s", rule.c_str(), error.Message().c_str());
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
        // Each rule took `_busMutex`, under which handlers run: by now no other thread is inside this one.
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
    reply = new MsgBusMsg(new MsgBusMsgImpl(_impl->Call(*message._impl, timeoutMs), true));
}

void MsgBus::SendReply(const MsgBusMsg& message) {
    _impl->SendReply(*message._impl);
}

void MsgBus::StartServer() {
    _impl->Start(0, 0);
}

void MsgBus::StartServer(unsigned int stackSize, signed char priority) {
    _impl->Start(stackSize, priority);
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
