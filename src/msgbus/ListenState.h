// SPDX-License-Identifier: MIT

#pragma once

#include <mutex>

#include "msgbus/Outbox.h"

namespace zarip::msgbus {

/// Whether a connection lives, whether its listen thread runs, and which thread that is. *Thread-safe*; its
/// mutex is a leaf.
///
///     kIdle ----- Begin -----> kListening --- RequestStop(false) ---> kStopping      (a handler may take it
///     back)
///       ^                         |   |                                  |
///       |                         |   +------- RequestStop(true) ----> kJoining <----+
///       +---------- End ----------+------------------------------------- End
///
/// `Lose` leads from kIdle to kLost, from kListening to kLostListening, in which the thread dispatches what
/// has been received and ends, and from the other two to kLostStopping. `End` leads from both to kLost, which
/// is final.
class ListenState {
public:
    /// What the listen thread does next.
    enum class Next { kListen, kDispatchTheRest, kLeave };

    /// Marks the calling thread as the listen thread for the length of a scope.
    class OnThisThread {
    public:
        explicit OnThisThread(const ListenState* state) { s_ofThisThread = state; }
        OnThisThread(const OnThisThread&) = delete;
        OnThisThread& operator=(const OnThisThread&) = delete;
        ~OnThisThread() { s_ofThisThread = nullptr; }
    };

    bool IsListenThread() const { return s_ofThisThread == this; }

    /// How the calling thread deals with a slow bus: the listen thread waits for it as little as possible,
    /// because handlers wait for the listen thread.
    Outbox::Patience GetPatience() const {
        return IsListenThread() ? Outbox::Patience::kWaitsIfFull : Outbox::Patience::kWaits;
    }

    /// The listen thread is about to be started; false if the connection is lost.
    bool Begin() {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (_state != State::kIdle) {
            return false;
        }
        _state = State::kListening;
        return true;
    }

    /// The listen thread has ended.
    void End() {
        const std::lock_guard<std::mutex> lock(_mutex);
        _state = IsLostState() ? State::kLost : State::kIdle;
    }

    /// @param isFinal  whether the caller waits for the end, so that no handler takes the request back.
    void RequestStop(bool isFinal) {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (_state == State::kListening || _state == State::kStopping) {
            _state = isFinal ? State::kJoining : State::kStopping;
        } else if (_state == State::kLostListening) {
            _state = State::kLostStopping;
        }
    }

    void TakeStopBack() {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (_state == State::kStopping) {
            _state = State::kListening;
        }
    }

    void Lose() {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (_state == State::kIdle) {
            _state = State::kLost;
        } else if (_state == State::kListening) {
            _state = State::kLostListening;
        } else if (!IsLostState()) {
            _state = State::kLostStopping;
        }
    }

    Next GetNext() const {
        const std::lock_guard<std::mutex> lock(_mutex);
        switch (_state) {
            case State::kListening:
                return Next::kListen;
            case State::kLostListening:
                return Next::kDispatchTheRest;
            default:
                return Next::kLeave;
        }
    }

    bool IsLost() const {
        const std::lock_guard<std::mutex> lock(_mutex);
        return IsLostState();
    }

    /// Whether the listen thread runs and was not asked to stop.
    bool IsListening() const {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _state == State::kListening;
    }

    /// Whether the listen thread has not ended.
    bool IsRunning() const {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _state != State::kIdle && _state != State::kLost;
    }

private:
    enum class State { kIdle, kListening, kStopping, kJoining, kLost, kLostListening, kLostStopping };

    bool IsLostState() const {
        return _state == State::kLost || _state == State::kLostListening || _state == State::kLostStopping;
    }

    static inline thread_local const ListenState* s_ofThisThread = nullptr;

    mutable std::mutex _mutex;
    State _state = State::kIdle;
};

}  // namespace zarip::msgbus
