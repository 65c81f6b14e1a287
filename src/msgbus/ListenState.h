// SPDX-License-Identifier: MIT

#pragma once

#include <mutex>

#include "msgbus/Outbox.h"

namespace zarip::msgbus {

/// Whether a connection is alive, whether its listen thread runs, and which thread that is. *Thread-safe*; no
/// other lock is taken while its mutex is held.
///
///     kIdle ----- Begin -----> kListening --- RequestStop(false) ---> kStopping
///       ^                         |   ^                                |  |
///       |                         |   +-------- TakeStopBack ----------+  |
///       |                         +---- RequestStop(true) --> kJoining <--+
///       +---------- End ----- from each of the other three
///
/// `NoteLost` leads from kIdle to kLost and from kListening to kLostListening, in which the thread dispatches
/// the received messages and ends. It leads from the other two states to kLostStopping. `End` leads from both
/// to kLost, which is final.
class ListenState {
public:
    /// The next step of the listen thread.
    enum class Next { kListen, kDispatchTheRest, kLeave };

    /// Marks the calling thread as the listen thread for a scope.
    class OnThisThread {
    public:
        explicit OnThisThread(const ListenState* state) { s_ofThisThread = state; }
        OnThisThread(const OnThisThread&) = delete;
        OnThisThread& operator=(const OnThisThread&) = delete;
        ~OnThisThread() { s_ofThisThread = nullptr; }
    };

    bool IsListenThread() const { return s_ofThisThread == this; }

    /// Returns how the calling thread deals with a slow bus. The listen thread waits as little as possible,
    /// because handlers wait for it.
    Outbox::Patience GetPatience() const {
        return IsListenThread() ? Outbox::Patience::kWaitsIfFull : Outbox::Patience::kWaits;
    }

    /// Is called before the listen thread is started; returns false if the connection is lost.
    bool Begin() {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (_state != State::kIdle) {
            return false;
        }
        _state = State::kListening;
        return true;
    }

    /// Is called when the listen thread has ended.
    void End() {
        const std::lock_guard<std::mutex> lock(_mutex);
        _state = IsLostState() ? State::kLost : State::kIdle;
    }

    /// Requests the end of the listen thread.
    /// @param isFinal  whether the caller waits for the end; then no handler can withdraw the request.
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

    void NoteLost() {
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

    /// Returns whether the listen thread runs and was not requested to stop.
    bool IsListening() const {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _state == State::kListening;
    }

    /// Returns whether the listen thread was started and has not ended.
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
