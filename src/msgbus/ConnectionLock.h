// SPDX-License-Identifier: MIT

#pragma once

#include <condition_variable>
#include <mutex>
#include <utility>

#include "zarip/osa/ThreadAnnotations.h"

namespace zarip::msgbus {

/// The lock of the libdbus connection, which serves threads in the order of their requests. *Thread-safe*,
/// not recursive.
///
/// With an ordinary mutex, a thread that sends in a tight loop would lock it again before a sleeping thread
/// has woken. Here `Release` passes the lock to the thread that has waited longest, and `TryLock` fails while
/// a thread waits. The lock is never held during a wait, so each turn is short.
class ZARIP_CAPABILITY("mutex") ConnectionLock {
public:
    ConnectionLock() = default;
    ConnectionLock(const ConnectionLock&) = delete;
    ConnectionLock& operator=(const ConnectionLock&) = delete;

    void Lock() ZARIP_ACQUIRE() {
        std::unique_lock<std::mutex> lock(_mutex);
        if (!_isHeld) {
            _isHeld = true;
            return;
        }
        Waiter self;
        (_first != nullptr ? _last->next : _first) = &self;
        _last = &self;
        self.turn.wait(lock, [&self] { return self.isTurn; });
    }

    bool TryLock() ZARIP_TRY_ACQUIRE(true) {
        const std::lock_guard<std::mutex> lock(_mutex);
        return !std::exchange(_isHeld, true);
    }

    void Release() ZARIP_RELEASE() {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (_first == nullptr) {
            _isHeld = false;
            return;
        }
        Waiter* const next = std::exchange(_first, _first->next);
        next->isTurn = true;
        // The mutex must be held, because the waiter may destroy its object as soon as the mutex is free.
        next->turn.notify_one();
    }

private:
    struct Waiter {
        std::condition_variable turn;
        bool isTurn = false;
        Waiter* next = nullptr;
    };

    std::mutex _mutex;
    bool _isHeld = false;
    // A list of the waiting threads, whose elements are on their stacks. Threads only wait while the lock is
    // held.
    Waiter* _first = nullptr;
    Waiter* _last = nullptr;
};

}  // namespace zarip::msgbus
