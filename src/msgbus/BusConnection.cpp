// SPDX-License-Identifier: MIT

#include "msgbus/BusConnection.h"

#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <climits>

#include "msgbus/Inbox.h"
#include "zarip/core/Logger.h"
#include "zarip/osa/Exception.h"

namespace zarip::msgbus {

namespace {

constexpr unsigned int kWatcherStackSize = 32768;
constexpr int kDefaultTimeoutMs = 25'000;  // libdbus's default
constexpr int kLastWriteLimitMs = 250;
/// A thread sends at most this many messages before the watcher's thread continues.
constexpr int kBatch = 64;
/// The pause before the next attempt if memory is short.
constexpr int kMemoryPauseMs = 10;
/// libdbus reads this many bytes at a time. The next constants limit how much of a long message is read
/// before other threads get the connection.
constexpr int kLibraryReads = 2048;
constexpr int kReadStep = 32 * 1024;
constexpr int kMaxReadSteps = 32;

// The messages of libdbus's own waiting calls.
const char* const kTimedOut =
    "Did not receive a reply. Possible causes include: the remote application did not send a reply, the "
    "message "
    "bus security policy blocked the reply, the reply timeout expired, or the network connection was broken.";
constexpr const char* kDisconnected = "Connection was disconnected before a reply was received";
constexpr const char* kClosed = "Connection is closed";

core::Logger* EnableThreads(core::Logger* logger) {
    // libdbus locks its own data only if this is called before the first connection is made.
    dbus_threads_init_default();
    return logger;
}

DBusConnection* OpenConnection() {
    DBusErrorRecord error;
    DBusConnection* const connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, error.Get());
    if (error.IsSet()) {
        throw osa::Exception("dbus_bus_get_private failed: " + error.GetMessage());
    }
    if (connection == nullptr) {
        throw osa::Exception("dbus_bus_get_private returned NULL");
    }
    dbus_connection_set_exit_on_disconnect(connection, FALSE);
    // This limit is never reached. The receivers limit what is kept, and libdbus must not stop reading,
    // because a reply might be next.
    dbus_connection_set_max_received_size(connection, INT_MAX / 2);
    return connection;
}

bool IsLocalDisconnected(DBusMessage* message) {
    return dbus_message_get_sender(message) == nullptr &&
           dbus_message_is_signal(message, DBUS_INTERFACE_LOCAL, "Disconnected") != FALSE;
}

/// Makes the answer to a call of the interface that every connection has; null for any other message.
MessageRef AnswerPeer(DBusMessage* message) {
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL ||
        dbus_message_has_interface(message, DBUS_INTERFACE_PEER) == FALSE) {
        return {};
    }
    if (dbus_message_has_member(message, "Ping") != FALSE) {
        return MessageRef::Adopt(dbus_message_new_method_return(message));
    }
    if (dbus_message_has_member(message, "GetMachineId") == FALSE) {
        return MessageRef::Adopt(
            dbus_message_new_error(message, DBUS_ERROR_UNKNOWN_METHOD,
                                   "Unknown method invoked on org.freedesktop.DBus.Peer interface"));
    }
    DBusErrorRecord error;
    char* id = dbus_try_get_local_machine_id(error.Get());
    MessageRef reply = MessageRef::Adopt(dbus_message_new_method_return(message));
    if (id == nullptr) {
        return MessageRef::Adopt(
            dbus_message_new_error(message, error.GetName(), error.GetMessage().c_str()));
    }
    if (reply && dbus_message_append_args(reply.Get(), DBUS_TYPE_STRING, &id, DBUS_TYPE_INVALID) == FALSE) {
        reply = MessageRef();
    }
    dbus_free(id);
    return reply;
}

}  // namespace

/// Locks the connection. Before it unlocks, it passes waiting messages to libdbus.
class ZARIP_SCOPED_CAPABILITY BusConnection::Use {
public:
    explicit Use(BusConnection& connection) ZARIP_ACQUIRE(connection._lock) : _connection(connection) {
        _connection._lock.Lock();
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    ~Use() ZARIP_RELEASE() {
        if (!_connection._outbox.IsIdle()) {
            _connection.SendQueued();
        }
        _connection._lock.Release();
        _connection.FlushOutbox();
    }

private:
    BusConnection& _connection;
};

/// Registers a pending call for a scope, at the end of which another call takes the lead.
class BusConnection::Pending {
public:
    Pending(BusConnection& connection, PendingCalls::Call& call) : _connection(connection), _call(call) {
        _connection._pending.Add(_call);
    }
    Pending(const Pending&) = delete;
    Pending& operator=(const Pending&) = delete;
    ~Pending() {
        if (_connection._pending.Remove(_call)) {
            _connection._watcher.Resume();
        }
    }

private:
    BusConnection& _connection;
    PendingCalls::Call& _call;
};

BusConnection::BusConnection(core::Logger* logger, Receiver* receiver)
    : _logger(EnableThreads(logger)),
      _receiver(receiver),
      _watcher(logger, [this](unsigned int flags) { OnReady(flags); }),
      _watcherThread("DBusWatcher", &_watcher, kWatcherStackSize, 0) {
    const Use use(*this);
    _connection = OpenConnection();
    try {
        _watcher.Attach(_connection);
    } catch (...) {
        dbus_connection_close(_connection);
        dbus_connection_unref(_connection);
        _connection = nullptr;
        throw;
    }
}

BusConnection::~BusConnection() {
    _outbox.WaitUntilWritten(kLastWriteLimitMs);
    _watcher.Stop();
    _watcherThread.Join();
    _outbox.Close();
    const Use use(*this);
    _watcher.Detach(_connection);
    if (_preparation != nullptr) {
        dbus_connection_free_preallocated_send(_connection, _preparation);
    }
    dbus_connection_close(_connection);
    dbus_connection_unref(_connection);
    _connection = nullptr;
}

void BusConnection::Start() {
    {
        const Use use(*this);
        TakeIncoming();
    }
    _watcherThread.Run();
}

// ------------------------------------------------------------------------------------------------------------
// Sending

dbus_uint32_t BusConnection::AssignSerial(DBusMessage* message) {
    if (dbus_message_get_serial(message) == 0) {
        dbus_uint32_t serial = 0;
        while (serial == 0) {
            serial = ++_lastSerial;
        }
        dbus_message_set_serial(message, serial);
    }
    return dbus_message_get_serial(message);
}

Outbox::Result BusConnection::Send(MessageRef message, std::size_t size, Outbox::Patience patience) {
    AssignSerial(message.Get());
    const Outbox::Result result = _outbox.Put(std::move(message), size, patience);
    FlushOutbox();
    return result;
}

void BusConnection::Post(MessageRef message) {
    if (message) {
        // If the calling thread holds the lock, `FlushOutbox` does nothing, and the destructor of that `Use`
        // sends the message.
        const std::size_t size = MeasureMessage(message.Get());
        Send(std::move(message), size, Outbox::Patience::kNever);
    }
}

/// Sends waiting messages. If another thread has the lock, that thread sends them, because it checks the
/// outbox after it has unlocked.
void BusConnection::FlushOutbox() {
    for (int round = 0; _outbox.HasWork(); ++round) {
        if (round == 2) {
            _watcher.Attend();
            return;
        }
        if (!_lock.TryLock()) {
            return;
        }
        SendQueued();
        _lock.Release();
    }
}

bool BusConnection::PrepareToSend() {
    if (_preparation == nullptr) {
        _preparation = dbus_connection_preallocate_send(_connection);
    }
    _isShortOfMemory = _preparation == nullptr;
    return _preparation != nullptr;
}

void BusConnection::SendQueued() {
    if (_connection == nullptr || _isLost) {
        return;
    }
    for (int i = 0; i < kBatch && dbus_connection_has_messages_to_send(_connection) == FALSE; ++i) {
        if (!PrepareToSend()) {
            return;  // nothing is taken out, and the watcher's thread tries again
        }
        const MessageRef message = _outbox.Take();
        if (!message) {
            break;
        }
        dbus_connection_send_preallocated(_connection, _preparation, message.Get(), nullptr);
        _preparation = nullptr;
    }
    if (dbus_connection_has_messages_to_send(_connection) != FALSE) {
        _outbox.NoteBlocked();
    } else {
        _outbox.NoteWritten();
    }
    if (dbus_connection_get_is_connected(_connection) == FALSE) {
        TakeIncoming();  // delivers libdbus's message that the connection is lost
    }
}

// ------------------------------------------------------------------------------------------------------------
// Calling

MessageRef BusConnection::Call(MessageRef message, std::size_t size, int timeoutMs, Outbox::Patience patience,
                               AfterTimeout afterTimeout, DBusErrorRecord& error) {
    const int limitMs = timeoutMs < 0 ? kDefaultTimeoutMs : timeoutMs;
    const osa::MonotonicMs until = limitMs == DBUS_TIMEOUT_INFINITE ? osa::kNever : osa::NowMs() + limitMs;
    PendingCalls::Call call(AssignSerial(message.Get()));
    Outbox::Result result = Outbox::Result::kFull;
    {
        const Pending pending(*this, call);
        result = _outbox.Put(std::move(message), size, patience, until);
        if (result == Outbox::Result::kTaken) {
            if (_pending.Begin(call)) {
                _watcher.Pause();
            }
            FlushOutbox();
            ReadUntilDone(call, until);
        }
    }
    if (result == Outbox::Result::kClosed) {
        dbus_set_error_const(error.Get(), DBUS_ERROR_DISCONNECTED, kClosed);
    } else if (!call.isDone) {
        if (afterTimeout == AfterTimeout::kWithdraw) {
            _outbox.Withdraw(call.serial);
        }
        dbus_set_error_const(error.Get(), DBUS_ERROR_NO_REPLY, kTimedOut);
    } else if (!call.reply) {
        dbus_set_error_const(error.Get(), DBUS_ERROR_DISCONNECTED, kDisconnected);
    } else if (dbus_set_error_from_message(error.Get(), call.reply.Get()) != FALSE) {
        call.reply = MessageRef();
    }
    return std::move(call.reply);
}

void BusConnection::ReadUntilDone(PendingCalls::Call& call, osa::MonotonicMs until) {
    bool isLate = false;
    for (auto role = _pending.GetRole(call); role != PendingCalls::Role::kDone && !isLate;
         role = _pending.GetRole(call)) {
        isLate = until != osa::kNever && osa::NowMs() >= until;  // reads once even if the time is 0
        if (role == PendingCalls::Role::kFollower) {
            if (!isLate) {
                _pending.Wait(call, until);
            }
            continue;
        }
        pollfd descriptors[] = {{_watcher.GetFd(), POLLIN, 0}, {_pending.GetWakeFd(), POLLIN, 0}};
        const osa::MonotonicMs left = until == osa::kNever ? INT_MAX : until - osa::NowMs();
        const int timeout = static_cast<int>(std::clamp<osa::MonotonicMs>(left, 0, INT_MAX));
        ::poll(descriptors, 2, timeout);
        if (descriptors[1].revents != 0) {
            _pending.ClearWake();
        }
        if (descriptors[0].revents != 0) {
            const Use use(*this);
            ReadMessages(DBUS_WATCH_READABLE);
        }
    }
}

// ------------------------------------------------------------------------------------------------------------
// Receiving

void BusConnection::OnReady(unsigned int flags) {
    if (_isShortOfMemory) {
        ::poll(nullptr, 0, kMemoryPauseMs);
    }
    const Use use(*this);
    if ((flags & DBUS_WATCH_WRITABLE) != 0) {
        _outbox.NoteProgress();
    }
    ReadMessages(flags);
}

void BusConnection::WaitAndRead() {
    const unsigned int flags = _watcher.Wait();
    if (flags != 0) {
        const Use use(*this);
        ReadMessages(flags);
    }
}

/// Reads and routes what has arrived. libdbus reads 2 KiB at a time, so a longer message is read in several
/// steps without waiting. Speed matters because strangers may send any amount, and the bus drops replies to a
/// connection that has more than 127 MiB to read.
void BusConnection::ReadMessages(unsigned int flags) {
    if (_isLost) {
        return;
    }
    _watcher.HandleWatches(flags);
    for (int step = 0; !TakeIncoming() && !_isLost && step < kMaxReadSteps; ++step) {
        int available = 0;
        if ((flags & DBUS_WATCH_READABLE) == 0 || ::ioctl(_watcher.GetFd(), FIONREAD, &available) != 0 ||
            available < kReadStep) {
            break;
        }
        for (int read = 0; read < available && read < kReadStep; read += kLibraryReads) {
            _watcher.HandleWatches(DBUS_WATCH_READABLE);
        }
    }
}

/// Takes and routes the messages that libdbus has parsed. Returns false if there were none.
bool BusConnection::TakeIncoming() {
    bool hasTaken = false;
    for (int attempts = 0; !_isLost && attempts < 100;) {
        MessageRef message = MessageRef::Adopt(dbus_connection_pop_message(_connection));
        if (message) {
            hasTaken = true;
            TryToRouteMessage(std::move(message));
        } else if (dbus_connection_get_dispatch_status(_connection) == DBUS_DISPATCH_NEED_MEMORY) {
            ::poll(nullptr, 0, kMemoryPauseMs);
            ++attempts;
        } else {
            break;
        }
    }
    return hasTaken;
}

/// Routes a message. If memory is short, the message is lost but not the connection.
void BusConnection::TryToRouteMessage(MessageRef message) noexcept {
    try {
        RouteMessage(std::move(message));
    } catch (...) {
        _logger->Error("Error handling incoming message: %s", "Out of Memory!");
    }
}

void BusConnection::RouteMessage(MessageRef message) {
    DBusMessage* const raw = message.Get();
    if (_isUnresponsive.load(std::memory_order_relaxed)) {
        _isUnresponsive = false;
    }
    const int type = dbus_message_get_type(raw);
    const bool isReply = type == DBUS_MESSAGE_TYPE_METHOD_RETURN || type == DBUS_MESSAGE_TYPE_ERROR;
    if (isReply && _pending.Complete(message)) {
        return;
    }
    if (IsLocalDisconnected(raw)) {
        NoteLost();
        return;
    }
    MessageRef answer = AnswerPeer(raw);
    if (!answer) {
        _receiver->OnReceived(*this, std::move(message));
    } else if (dbus_message_get_no_reply(raw) == FALSE) {
        Post(std::move(answer));
    }
}

void BusConnection::NoteLost() {
    _isLost = true;
    _logger->Error("The connection to the bus is lost");
    const std::size_t lost = _outbox.Close();
    if (lost != 0) {
        _logger->Error("dbus_connection_send failed: %zu queued messages are lost", lost);
    }
    _pending.FailAll();
    _receiver->OnLost(*this);
}

}  // namespace zarip::msgbus
