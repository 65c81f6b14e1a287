// SPDX-License-Identifier: MIT

#include "msgbus/Outbox.h"

#include <algorithm>
#include <chrono>

namespace zarip::msgbus {

namespace {

constexpr std::size_t kFullMemory = std::size_t{64} * 1024 * 1024;
constexpr std::size_t kFullCount = 100'000;
constexpr std::size_t kLowMark = std::size_t{1024} * 1024;
/// The memory of a message without arguments, measured with libdbus and this queue.
constexpr std::size_t kOverheadOfMessage = 640;
constexpr osa::MonotonicMs kStallMs = 100;

}  // namespace

Outbox::Result Outbox::Put(MessageRef message, std::size_t size, Patience patience, osa::MonotonicMs until) {
    const std::size_t memory = size + kOverheadOfMessage;
    std::unique_lock<std::mutex> lock(_mutex);
    if (!_isClosed && _memory > kLowMark && !WaitForRoom(lock, memory, patience, until)) {
        return Result::kFull;
    }
    if (_isClosed) {
        return Result::kClosed;
    }
    // From here on libdbus refuses to change the message, as if libdbus had sent it.
    dbus_message_lock(message.Get());
    _queue.push_back({std::move(message), memory});
    _memory += memory;
    UpdateFlags();
    return Result::kTaken;
}

bool Outbox::IsFullFor(std::size_t memory) const {
    return _memory + memory > kFullMemory || _queue.size() >= kFullCount;
}

bool Outbox::IsStalled(osa::MonotonicMs now) const {
    return _isBlocked && now - _lastProgress >= kStallMs;
}

/// Waits for room. Returns false if the outbox is still full, and true also if it was closed in between.
bool Outbox::WaitForRoom(std::unique_lock<std::mutex>& lock, std::size_t memory, Patience patience,
                         osa::MonotonicMs until) {
    const osa::MonotonicMs end = osa::NowMs() + kStallMs;
    while (!_isClosed && _memory > kLowMark) {
        const bool isFull = IsFullFor(memory);
        const osa::MonotonicMs now = osa::NowMs();
        // The time at which this wait ends if the bus accepts nothing until then.
        osa::MonotonicMs giveUp = _isBlocked ? _lastProgress + kStallMs : now + kStallMs;
        if (isFull) {
            giveUp = std::max(giveUp, until);
        } else {
            giveUp = std::min(giveUp, end);
        }
        if (now >= giveUp || patience == Patience::kNever ||
            (patience == Patience::kWaitsIfFull && !isFull)) {
            return !isFull;
        }
        ++_waiters;
        _changed.wait_for(lock, std::chrono::milliseconds(std::min(giveUp - now, kStallMs)));
        --_waiters;
    }
    return true;
}

MessageRef Outbox::Take() {
    const std::lock_guard<std::mutex> lock(_mutex);
    NoteTakenWritten();
    MessageRef message;
    if (!_queue.empty()) {
        message = std::move(_queue.front().message);
        _takenMemory = _queue.front().memory;
        _queue.pop_front();
    }
    UpdateFlags();
    return message;
}

void Outbox::NoteWritten() {
    const std::lock_guard<std::mutex> lock(_mutex);
    NoteTakenWritten();
    UpdateFlags();
}

/// Notes that the message taken last is written.
void Outbox::NoteTakenWritten() {
    _memory -= _takenMemory;
    _takenMemory = 0;
    _isBlocked = false;
    // Waiting senders are not woken at every message, so that they get room for many messages at once.
    if (_waiters > 0 && (_memory <= kLowMark / 2 || _queue.empty())) {
        _changed.notify_all();
    }
}

void Outbox::NoteBlocked() {
    const std::lock_guard<std::mutex> lock(_mutex);
    if (!_isBlocked) {
        _isBlocked = true;
        _lastProgress = osa::NowMs();
        UpdateFlags();
    }
}

void Outbox::NoteProgress() {
    const std::lock_guard<std::mutex> lock(_mutex);
    _lastProgress = osa::NowMs();
}

void Outbox::Withdraw(dbus_uint32_t serial) {
    const std::lock_guard<std::mutex> lock(_mutex);
    const auto entry = std::find_if(_queue.begin(), _queue.end(), [serial](const Entry& queued) {
        return dbus_message_get_serial(queued.message.Get()) == serial;
    });
    if (entry != _queue.end()) {
        _memory -= entry->memory;
        _queue.erase(entry);
        UpdateFlags();
    }
}

std::size_t Outbox::Close() {
    const std::lock_guard<std::mutex> lock(_mutex);
    const std::size_t lost = _queue.size();
    _queue.clear();  // not swapped with another, since even an empty deque takes memory
    _isClosed = true;
    _memory = 0;
    _takenMemory = 0;
    UpdateFlags();
    _changed.notify_all();
    return lost;
}

void Outbox::WaitUntilWritten(int limitMs) {
    std::unique_lock<std::mutex> lock(_mutex);
    const osa::MonotonicMs end = osa::NowMs() + limitMs;
    for (osa::MonotonicMs now = osa::NowMs(); now < end; now = osa::NowMs()) {
        if (_isClosed || (_queue.empty() && _takenMemory == 0) || IsStalled(now)) {
            return;
        }
        ++_waiters;
        _changed.wait_for(lock, std::chrono::milliseconds(end - now));
        --_waiters;
    }
}

void Outbox::UpdateFlags() {
    _hasWork.store(!_queue.empty() && !_isBlocked, std::memory_order_release);
    _isIdle.store(_queue.empty() && _takenMemory == 0, std::memory_order_release);
}

}  // namespace zarip::msgbus
