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

/// The messages that wait to be sent. All messages of a connection pass through it in order. *Thread-safe*;
/// no other lock is taken while its mutex is held.
///
/// The outbox counts memory, not bytes on the wire, because even an empty message takes several hundred
/// bytes. A message counts until libdbus has written it.
///
/// States: *flowing* while the bus accepts messages; *blocked* while libdbus has bytes left to write, from
/// `NoteBlocked` until `Take` or `NoteWritten`; *stalled* if it is blocked and nothing was written for 100
/// ms; *closed* for good once the connection is lost. If more than the low mark is queued, a sender waits for
/// room. It is refused only if the outbox is full and stalled. So a pause of the bus delays its senders, and
/// sending continues as soon as the bus reads again.
class Outbox {
public:
    enum class Result { kTaken, kFull, kClosed };

    /// How a sender deals with a bus that is slower than the sender.
    enum class Patience {
        kWaits,        ///< waits above the low mark, for at most 100 ms unless the outbox is full
        kWaitsIfFull,  ///< waits only while the outbox is full; for the listen thread, on which others depend
        kNever         ///< for answers of the connection itself, which are sent with the connection locked
    };

    /// Queues a message.
    /// @param size  the message's size in bytes.
    /// @param until  the time until which a call waits if the outbox is full. A call waits for its reply
    ///     anyway, so it can also wait for room.
    Result Put(MessageRef message, std::size_t size, Patience patience, osa::MonotonicMs until = 0);

    /// Returns whether a message waits and libdbus can take it.
    bool HasWork() const { return _hasWork; }

    /// Returns whether no message waits and all are written.
    bool IsIdle() const { return _isIdle; }

    // Only the holder of the connection's lock calls the following functions.

    /// Notes that the message taken before is written, and takes the next message, or null.
    MessageRef Take();

    /// Notes that the message taken last is written.
    void NoteWritten();

    /// Notes that the message taken last is not written completely.
    void NoteBlocked();

    /// Notes that the bus has accepted a part of what is left to write.
    void NoteProgress();

    // Any thread may call the following functions.

    /// Removes a call that is still queued, because its caller no longer waits.
    void Withdraw(dbus_uint32_t serial);

    /// Is called when the connection is lost. Returns the number of messages lost with it. `Put` returns
    /// `kClosed` from then on.
    std::size_t Close();

    /// Waits until all messages are written, but at most `limitMs`, and no longer if the outbox is stalled.
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
    void NoteTakenWritten();
    void UpdateFlags();

    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::deque<Entry> _queue;
    std::size_t _memory = 0;       ///< of the queue and of the message that libdbus has not written
    std::size_t _takenMemory = 0;  ///< of the message that libdbus has not written
    bool _isBlocked = false;
    bool _isClosed = false;
    int _waiters = 0;
    osa::MonotonicMs _lastProgress = 0;  ///< valid while blocked
    // These are derived from the other fields, for threads that read them without the mutex.
    std::atomic<bool> _hasWork{false};
    std::atomic<bool> _isIdle{true};
};

}  // namespace zarip::msgbus
