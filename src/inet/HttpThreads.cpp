// SPDX-License-Identifier: MIT

#include "inet/HttpThreads.h"

#include <algorithm>

#include "zarip/osa/MutexAutoLock.h"

namespace zarip::inet {

using osa::MutexAutoLock;

namespace {

constexpr unsigned int kLookMs = 4;
/// A handler that runs for at least this long counts as slow.
constexpr osa::MonotonicMs kLongMs = 2;
constexpr unsigned int kEagerTurns = 16;
/// After this many checks of an idle server the watcher sleeps until the next request.
constexpr unsigned int kQuietLooks = 5;

std::size_t CountBytes(const ServedConnection& connection) {
    return connection.bytes.size();
}

}  // namespace

void HttpThreads::Run() {
    while (TakeLead()) {
        _work.RunLoop();
        if (_ended) {
            return;
        }
        ServeQueue();  // the lead was lost to the watcher while this thread ran a handler
        _work.OnServed();
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

/// Waits until this thread becomes the leader; returns false if the server has ended.
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
    const bool leads = WatchLeader();
    const MutexAutoLock lock(&_mutex);
    _isWatched = false;
    if (_idleCount > 0) {
        --_idleCount;
        _idle.Release();  // the next watcher
    }
    return leads;
}

/// Checks the leader until this thread has taken over the lead; returns false if the server has ended.
bool HttpThreads::WatchLeader() {
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

/// Serves the waiting requests one after the other.
void HttpThreads::ServeQueue() {
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
            _queuedBytes -= CountBytes(*next);
        }
        _work.ServeQueued(std::move(next));
    }
}

bool HttpThreads::QueueConnection(std::unique_ptr<ServedConnection>& connection) {
    const MutexAutoLock lock(&_mutex);
    if (_running < _workers) {
        return false;
    }
    const std::size_t size = CountBytes(*connection);
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
    const auto largest = std::max_element(
        _queue.begin(), _queue.end(),
        [](const auto& left, const auto& right) { return CountBytes(*left) < CountBytes(*right); });
    if (largest != _queue.end()) {
        _queuedBytes -= CountBytes(**largest);
        _queue.erase(largest);
    }
}

void HttpThreads::DropQueued() {
    const MutexAutoLock lock(&_mutex);
    _queue.clear();
    _queuedBytes = 0;
}

void HttpThreads::EndThreads() {
    _ended = true;
    WakeWatcher();
    const MutexAutoLock lock(&_mutex);
    for (; _idleCount > 0; --_idleCount) {
        _idle.Release();
    }
}

}  // namespace zarip::inet
