// SPDX-License-Identifier: MIT

#include "msgbus/Outbox.h"

#include <algorithm>
#include <chrono>

namespace zarip::msgbus {

namespace {

constexpr std::size_t kFullMemory = std::size_t{64} * 1024 * 1024;
constexpr std::size_t kFullCount = 100'000;
constexpr std::size_t kLowMark = std::size_t{1024} * 1024;
/// What a message without arguments takes, measured with libdbus and this queue.
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
    // From here on libdbus refuses to change it, as it does with what it has sent itself.
    dbus_message_lock(message.Get());
    _queue.push_back({std::move(message), memory});
    _memory += memory;
    Update();
    return Result::kTaken;
}

bool Outbox::IsFullFor(std::size_t memory) const {
    return _memory + memory > kFullMemory || _queue.size() >= kFullCount;
}

bool Outbox::IsStalled(osa::MonotonicMs now) const {
    return _isBlocked && now - _lastProgress >= kStallMs;
}

/// False when there is no room; true also when the outbox was closed meanwhile.
bool Outbox::WaitForRoom(std::unique_lock<std::mutex>& lock, std::size_t memory, Patience patience,
                         osa::MonotonicMs until) {
    const osa::MonotonicMs end = osa::NowMs() + kStallMs;
    while (!_isClosed && _memory > kLowMark) {
        const bool isFull = IsFullFor(memory);
        const osa::MonotonicMs now = osa::NowMs();
        // The end of this wait if the bus takes nothing meanwhile.
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
    Release();
    MessageRef message;
    if (!_queue.empty()) {
        message = std::move(_queue.front().message);
        _takenMemory = _queue.front().memory;
        _queue.pop_front();
    }
    Update();
    return message;
}

void Outbox::NoteWritten() {
    const std::lock_guard<std::mutex> lock(_mutex);
    Release();
    Update();
}

/// What was taken is written.
void Outbox::Release() {
    _memory -= _takenMemory;
    _takenMemory = 0;
    _isBlocked = false;
    // Not at every message below the mark, so that a waiting sender gets room for many at a time.
    if (_waiters > 0 && (_memory <= kLowMark / 2 || _queue.empty())) {
        _changed.notify_all();
    }
}

void Outbox::NoteBlocked() {
    const std::lock_guard<std::mutex> lock(_mutex);
    if (!_isBlocked) {
        _isBlocked = true;
        _lastProgress = osa::NowMs();
        Update();
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
        Update();
    }
}

std::size_t Outbox::Close() {
    const std::lock_guard<std::mutex> lock(_mutex);
    const std::size_t lost = _queue.size();
    _queue.clear();  // not swapped with another, since even an empty deque takes memory
    _isClosed = true;
    _memory = 0;
    _takenMemory = 0;
    Update();
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

void Outbox::Update() {
    _hasWork.store(!_queue.empty() && !_isBlocked, std::memory_order_release);
    _isIdle.store(_queue.empty() && _takenMemory == 0, std::memory_order_release);
}

}  // namespace zarip::msgbus
