// SPDX-License-Identifier: MIT

#pragma once

#include <dbus/dbus.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>

#include "msgbus/DBusHandles.h"
#include "osa/Wait.h"

namespace zarip::msgbus {

/// The messages that wait to be sent: everything that leaves a connection passes through here, in order.
/// *Thread-safe*; its mutex is a leaf.
///
/// The outbox counts memory, not bytes on the wire: an empty message takes several hundred bytes as well. A
/// message counts until libdbus has written it.
///
/// States: *flowing* while the bus takes messages; *blocked* from the moment that libdbus has something left
/// to write (`NoteBlocked`) until that is written (`Take`); *stalled* when it has been blocked and nothing
/// was written for 100 ms; *closed* once the connection is lost, from which there is no way back. A sender
/// that finds more than the low mark waits for room. It is refused only if the outbox is full and stalled. So
/// a bus that pauses costs its senders a wait, and the flow recovers as soon as the bus reads again.
class Outbox {
public:
    enum class Result { kTaken, kFull, kClosed };

    /// How a sender deals with a bus that is slower than it is.
    enum class Patience {
        kWaits,        ///< waits above the low mark, at most 100 ms unless the outbox is full
        kWaitsIfFull,  ///< the listen thread, on which others depend: waits only while the outbox is full
        kNever         ///< answers of the connection itself, which are sent with the connection locked
    };

    /// @param size  the message's size in bytes. @param until  a call that finds the outbox full waits for
    /// room
    ///     until then, because its caller waits for the reply in any case.
    Result Put(MessageRef message, std::size_t size, Patience patience, osa::MonotonicMs until = 0);

    /// Whether there is something to send that the bus may take.
    bool HasWork() const { return _hasWork; }

    /// Whether nothing waits and all is written.
    bool IsIdle() const { return _isIdle; }

    // By the holder of the connection's lock.

    /// Everything that was taken before is written. The next message, or null.
    MessageRef Take();

    /// Everything that was taken is written.
    void NoteWritten();

    /// What was taken last is not written completely.
    void NoteBlocked();

    /// The bus has taken some of what is left to write.
    void NoteProgress();

    // By any thread.

    /// Removes a call that is still here, because its caller does not wait any more.
    void Withdraw(dbus_uint32_t serial);

    /// The connection is lost. Returns how many messages are lost with it; afterwards `Put` takes none.
    std::size_t Close();

    /// Waits until everything is written; gives up after `limitMs`, or when the bus is stalled.
    void WaitUntilWritten(int limitMs);

private:
    struct Entry {
        MessageRef message;
        std::size_t memory;
    };

    bool IsFullFor(std::size_t memory) const;
    bool IsStalled(osa::MonotonicMs now) const;
    bool WaitForRoom(std::unique_lock<std::mutex>& lock, std::size_t memory, Patience patience,
                     osa::MonotonicMs until);
    void Release();
    void Update();

    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::deque<Entry> _queue;
    std::size_t _memory = 0;       ///< of the queue, and of what libdbus has not written
    std::size_t _takenMemory = 0;  ///< of what libdbus has not written
    bool _isBlocked = false;
    bool _isClosed = false;
    int _waiters = 0;
    osa::MonotonicMs _lastProgress = 0;  ///< valid while blocked
    // Derived from the others, for readers without the mutex.
    std::atomic<bool> _hasWork{false};
    std::atomic<bool> _isIdle{true};
};

}  // namespace zarip::msgbus
