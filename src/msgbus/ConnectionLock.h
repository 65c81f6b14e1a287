// SPDX-License-Identifier: MIT

#pragma once

#include <condition_variable>
#include <mutex>
#include <utility>

#include "zarip/osa/ThreadAnnotations.h"

namespace zarip::msgbus {

/// The lock of the libdbus connection: first come, first served. *Thread-safe*, not recursive.
///
/// A thread that sends in a tight loop would take an ordinary mutex again and again before a thread that
/// sleeps on it has woken. Here `Release` hands the lock to the thread that has waited longest, and `TryLock`
/// fails while somebody waits. The lock is never held during a wait, so every turn is short.
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
        // Under the mutex: once it is free the waiter may have left and be gone.
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
    // The threads that wait, on whose stacks these are. Threads wait only while the lock is held.
    Waiter* _first = nullptr;
    Waiter* _last = nullptr;
};

}  // namespace zarip::msgbus
