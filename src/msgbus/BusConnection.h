// SPDX-License-Identifier: MIT

#pragma once

#include <dbus/dbus.h>

#include <atomic>

#include "msgbus/ConnectionLock.h"
#include "msgbus/DBusHandles.h"
#include "msgbus/DBusWatcher.h"
#include "msgbus/Outbox.h"
#include "msgbus/PendingCalls.h"
#include "zarip/osa/Thread.h"

namespace zarip::core {
class Logger;
}

namespace zarip::msgbus {

/// A private connection to the system bus, with one path for outgoing messages (`Outbox`) and one for
/// incoming messages. *Thread-safe*.
///
/// States: *made* after the constructor, *started* after `Start`, which is called once, and *lost* for good
/// once the bus has closed the connection.
///
/// *Out*: every message enters the outbox. A thread that gets the connection's lock passes messages to
/// libdbus, for itself and for other threads, up to a limit. While the socket is full, the watcher's thread
/// does that. *In*: a thread that reads takes all messages that libdbus has parsed. Replies complete their
/// pending calls, pings are answered, and other messages go to the receiver. A waiting call reads if there is
/// one, otherwise the listen thread, otherwise the watcher's thread.
///
/// The lock guards libdbus and is only held for single steps that do not wait. `Receiver` is the only
/// callback that is called with the lock held. So neither a waiting thread nor a handler prevents other
/// threads from sending, calling or receiving replies.
///
/// libdbus's own dispatching, pending calls and blocking functions are not used, because they process
/// messages in order of arrival, stop reading at 63 MiB, and hold the connection while they wait. This object
/// assigns the serial numbers, so that a call is pending before it is sent.
///
/// Lock order: the lock first, then the mutexes of the outbox, the pending calls, the receiver and the
/// watcher. No other mutex is locked while one of these is held.
class BusConnection {
public:
    /// Receives the messages of a connection. *Called with the connection's lock held*, on any thread. It
    /// must not call functions of the connection except `Post`.
    class Receiver {
    public:
        virtual ~Receiver() = default;
        /// Is called with a signal, a call, or a reply for which no call waits.
        virtual void OnReceived(BusConnection& connection, MessageRef message) = 0;
        /// Is called when the connection is lost, as the last callback.
        virtual void OnLost(BusConnection& connection) = 0;
    };

    /// Throws "dbus_bus_get_private failed: <reason>", "dbus_bus_get_private returned NULL", "pipe failed".
    /// @param receiver  *not owned*; is called from `Start` on.
    BusConnection(core::Logger* logger, Receiver* receiver);
    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;

    /// Sends the last messages for at most a quarter of a second and closes the connection, which releases
    /// its names.
    ~BusConnection();

    void Start();

    /// Sends a message without waiting for a reply.
    /// @param size  the message's size in bytes.
    Outbox::Result Send(MessageRef message, std::size_t size, Outbox::Patience patience);

    /// Sends an answer of the connection itself; the lock may be held. The answer is dropped if the outbox is
    /// full.
    void Post(MessageRef message);

    /// What happens to a call that times out before it is sent.
    enum class AfterTimeout { kWithdraw, kSend };

    /// Sends a call and waits for its reply.
    /// @param timeoutMs  in milliseconds, as in libdbus: -1 is its default of 25 seconds, 0x7FFFFFFF is no
    ///     limit. @return the reply, or null if `error` was set.
    MessageRef Call(MessageRef message, std::size_t size, int timeoutMs, Outbox::Patience patience,
                    AfterTimeout afterTimeout, DBusErrorRecord& error);

    /// Returns whether a call to the bus itself has timed out and the bus has sent nothing since.
    bool IsUnresponsive() const { return _isUnresponsive; }
    void NoteUnresponsive() { _isUnresponsive = true; }

    // The listen thread calls the following functions.

    void BeginHandling() { _watcher.BeginHandling(); }
    void EndHandling() { _watcher.EndHandling(); }
    void BeginListening() { _watcher.GiveAway(); }
    void EndListening() { _watcher.TakeBack(); }

    /// Waits until the descriptor is ready and reads, or returns after `WakeListener`.
    void WaitAndRead();
    void WakeListener() { _watcher.Wake(); }

private:
    class Use;
    class Pending;

    void OnReady(unsigned int flags);
    void ReadUntilDone(PendingCalls::Call& call, osa::MonotonicMs until);
    void Read(unsigned int flags) ZARIP_REQUIRES(_lock);
    bool TakeIncoming() ZARIP_REQUIRES(_lock);
    void TryToRoute(MessageRef message) noexcept ZARIP_REQUIRES(_lock);
    void Route(MessageRef message) ZARIP_REQUIRES(_lock);
    void Lose() ZARIP_REQUIRES(_lock);
    bool PrepareToSend() ZARIP_REQUIRES(_lock);
    void Drain() ZARIP_REQUIRES(_lock);
    void Flush();
    dbus_uint32_t Number(DBusMessage* message);

    core::Logger* _logger;
    Receiver* _receiver;
    ConnectionLock _lock;
    DBusConnection* _connection ZARIP_GUARDED_BY(_lock) = nullptr;
    bool _isLost ZARIP_GUARDED_BY(_lock) = false;
    /// What libdbus needs to take the next message, so that it does so without fail.
    DBusPreallocatedSend* _preparation ZARIP_GUARDED_BY(_lock) = nullptr;
    Outbox _outbox;
    PendingCalls _pending;
    DBusWatcher _watcher;
    osa::Thread _watcherThread;
    std::atomic<dbus_uint32_t> _lastSerial{1};  // libdbus has sent its greeting with number 1
    std::atomic<bool> _isUnresponsive{false};
    std::atomic<bool> _isShortOfMemory{false};
};

}  // namespace zarip::msgbus
