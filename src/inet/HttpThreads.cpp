// SPDX-License-Identifier: MIT

#include "inet/HttpThreads.h"

#include <algorithm>

#include "zarip/osa/MutexAutoLock.h"

namespace zarip::inet {

using osa::MutexAutoLock;

namespace {

constexpr unsigned int kLookMs = 4;
/// What counts as a handler that takes long.
constexpr osa::MonotonicMs kLongMs = 2;
constexpr unsigned int kEagerTurns = 16;
/// After so many looks at a server that rests the watcher sleeps until the next request.
constexpr unsigned int kQuietLooks = 5;

std::size_t SizeOf(const ServedConnection& connection) {
    return connection.bytes.size();
}

}  // namespace

void HttpThreads::Run() {
    while (TakeLead()) {
        _work.Lead();
        if (_ended) {
            return;
        }
        WorkOff();  // the lead was lost to the watcher while this thread ran a handler
        _work.OnWorked();
    }
}

HttpThreads::Turn HttpThreads::BeginWork() {
    ++_running;
    Turn turn = {++_turn, 0};
    if (_eager > 0) {
        turn.begin = osa::NowMs();
        if (!_isNudged.exchange(true)) {
            _watch.Release();
        }
    } else {
        WakeWatcher();
    }
    return turn;
}

bool HttpThreads::EndWork(Turn turn) {
    std::uint64_t number = turn.number;
    if (_turn.compare_exchange_strong(number, number + 1)) {
        if (turn.begin != 0) {
            --_eager;
        }
        --_running;
        return true;
    }
    if (turn.begin == 0 || osa::NowMs() - turn.begin >= kLongMs) {
        _eager = kEagerTurns;
    }
    return false;
}

/// Waits until this thread is to lead; false at the end.
bool HttpThreads::TakeLead() {
    for (;;) {
        {
            const MutexAutoLock lock(&_mutex);
            if (_ended) {
                return false;
            }
            if (!_isWatched) {
                _isWatched = true;
                break;
            }
            ++_idleCount;
        }
        _idle.Lock();
    }
    const bool leads = Watch();
    const MutexAutoLock lock(&_mutex);
    _isWatched = false;
    if (_idleCount > 0) {
        --_idleCount;
        _idle.Release();  // the next watcher
    }
    return leads;
}

/// Looks after the leader until it can be relieved; false at the end.
bool HttpThreads::Watch() {
    std::uint64_t seen = kNobody;
    unsigned int quiet = 0;
    while (!_ended) {
        const bool isNudged = _isNudged.exchange(false);
        std::uint64_t turn = _turn;
        const bool isHeldUp = turn % 2 == 1 && (turn == seen || isNudged);
        if (isHeldUp && _turn.compare_exchange_strong(turn, turn + 1)) {
            return true;
        }
        quiet = turn == seen ? quiet + 1 : 0;
        seen = turn;
        if (quiet < kQuietLooks) {
            _watch.TryLock(kLookMs);
            continue;
        }
        // Either the leader sees that the watcher sleeps, or the watcher sees the leader's new turn.
        quiet = 0;
        _watcherSleeps = true;
        if (_turn == seen && !_ended) {
            _watch.Lock();
        }
        _watcherSleeps = false;
    }
    return false;
}

void HttpThreads::WakeWatcher() {
    if (_watcherSleeps && _watcherSleeps.exchange(false)) {
        _watch.Release();
    }
}

/// Serves the requests that wait, one after the other.
void HttpThreads::WorkOff() {
    for (;;) {
        std::unique_ptr<ServedConnection> next;
        {
            const MutexAutoLock lock(&_mutex);
            if (_queue.empty()) {
                --_running;
                return;
            }
            next = std::move(_queue.front());
            _queue.pop_front();
            _queuedBytes -= SizeOf(*next);
        }
        _work.Work(std::move(next));
    }
}

bool HttpThreads::Queue(std::unique_ptr<ServedConnection>& connection) {
    const MutexAutoLock lock(&_mutex);
    if (_running < _workers) {
        return false;
    }
    const std::size_t size = SizeOf(*connection);
    _queue.push_back(std::move(connection));
    _queuedBytes += size;
    return true;
}

std::size_t HttpThreads::GetQueued() const {
    const MutexAutoLock lock(&_mutex);
    return _queue.size();
}

std::size_t HttpThreads::GetQueuedBytes() const {
    const MutexAutoLock lock(&_mutex);
    return _queuedBytes;
}

void HttpThreads::DropLargest() {
    const MutexAutoLock lock(&_mutex);
    const auto largest =
        std::max_element(_queue.begin(), _queue.end(),
                         [](const auto& left, const auto& right) { return SizeOf(*left) < SizeOf(*right); });
    if (largest != _queue.end()) {
        _queuedBytes -= SizeOf(**largest);
        _queue.erase(largest);
    }
}

void HttpThreads::DropQueued() {
    const MutexAutoLock lock(&_mutex);
    _queue.clear();
    _queuedBytes = 0;
}

void HttpThreads::End() {
    _ended = true;
    WakeWatcher();
    const MutexAutoLock lock(&_mutex);
    for (; _idleCount > 0; --_idleCount) {
        _idle.Release();
    }
}

}  // namespace zarip::inet
