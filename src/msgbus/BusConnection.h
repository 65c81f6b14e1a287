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

/// A private connection to the system bus: one way out (`Outbox`) and one way in. *Thread-safe*.
///
/// *Out*: every message enters the outbox; a thread that gets the connection's lock hands libdbus what the
/// bus takes, for itself and for others, up to a bound. While the socket is full the watcher's thread does
/// that. *In*: a thread that reads takes out of libdbus whatever that has parsed. Replies complete their
/// pending calls, pings are answered, and the rest goes to the receiver. The reader is a waiting call if
/// there is one, else the listen thread, else the watcher's thread.
///
/// The lock guards libdbus and is held only for single steps that do not wait; nothing is called with it held
/// except `Receiver`. So no thread's wait, and no handler, keeps another thread from sending, calling or
/// receiving a reply.
///
/// libdbus's own dispatching, pending calls and blocking functions are not used: they process messages in
/// order of arrival, stop reading at 63 MiB, and wait with the connection held. The serial numbers are this
/// object's own, so that a call is pending before it is sent.
///
/// Lock order: the lock, then the mutexes of the outbox, the pending calls, the receiver and the watcher,
/// which are leaves.
class BusConnection {
public:
    /// What the owner of a connection does with messages. *Called with the connection's lock held*, on any
    /// thread; it must not use the connection except for `Post`.
    class Receiver {
    public:
        virtual ~Receiver() = default;
        /// A signal, a call, or a reply that no call waits for.
        virtual void OnReceived(BusConnection& connection, MessageRef message) = 0;
        /// Nothing comes after this.
        virtual void OnLost(BusConnection& connection) = 0;
    };

    /// Throws "dbus_bus_get_private failed: <reason>", "dbus_bus_get_private returned NULL", "pipe failed".
    /// @param receiver  *not owned*, is called from `Start` on.
    BusConnection(core::Logger* logger, Receiver* receiver);
    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;

    /// Hands the last messages to the bus, as far as that takes them within a quarter of a second, and closes
    /// the connection, which gives up its names.
    ~BusConnection();

    void Start();

    /// Sends a message to which no reply is awaited. @param size  in bytes.
    Outbox::Result Send(MessageRef message, std::size_t size, Outbox::Patience patience);

    /// The same for answers of the connection itself, also with the lock held. Dropped if the outbox is full.
    void Post(MessageRef message);

    /// What becomes of a call that has timed out before it was sent.
    enum class AfterTimeout { kWithdraw, kSend };

    /// Sends a call and waits for its reply.
    /// @param timeoutMs  as in libdbus: -1 for its default of 25 seconds, 0x7FFFFFFF for no limit.
    /// Returns the reply, or null and sets the error.
    MessageRef Call(MessageRef message, std::size_t size, int timeoutMs, Outbox::Patience patience,
                    AfterTimeout afterTimeout, DBusErrorRecord& error);

    /// Whether a call to the bus itself has timed out and nothing has come from the bus since.
    bool IsUnresponsive() const { return _isUnresponsive; }
    void NoteUnresponsive() { _isUnresponsive = true; }

    // The listen thread.

    void BeginHandling() { _watcher.BeginHandling(); }
    void EndHandling() { _watcher.EndHandling(); }
    void BeginListening() { _watcher.GiveAway(); }
    void EndListening() { _watcher.TakeBack(); }

    /// Waits for the descriptor and reads, or returns after `WakeListener`.
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
    std::atomic<dbus_uint32_t> _lastSerial{1};  // the greeting has had number 1
    std::atomic<bool> _isUnresponsive{false};
    std::atomic<bool> _isShortOfMemory{false};
};

}  // namespace zarip::msgbus
