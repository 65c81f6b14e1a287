// SPDX-License-Identifier: MIT

#pragma once

#include <atomic>

#include "zarip/osa/Timeout.h"

namespace zarip::osa {

/// A request to stop waiting, which is never taken back. *Thread-safe*. Its descriptor is made when a thread
/// first has to wait, so a connection that never waits costs none.
class CancelEvent {
public:
    CancelEvent() = default;
    CancelEvent(const CancelEvent&) = delete;
    CancelEvent& operator=(const CancelEvent&) = delete;
    ~CancelEvent();

    void Cancel();
    bool IsCancelled() const { return _cancelled; }

    /// Readable once cancelled; -1 if the system refuses one.
    int GetFd();

private:
    std::atomic<bool> _cancelled{false};
    std::atomic<int> _fd{-1};
};

/// A time on the monotonic clock in milliseconds.
using MonotonicMs = long long;
constexpr MonotonicMs kNever = 0x7FFFFFFFFFFFFFFFLL;

MonotonicMs NowMs();

enum class WaitResult { kReady, kTimeout, kCancelled };

/// Waits until the descriptor is ready for `events` (of poll), one of the cancel events is cancelled or the
/// time has come. A signal does not end the wait. Either cancel event may be null. Throws SocketException
/// "select failed: ...".
WaitResult WaitFor(int fd, short events, CancelEvent* cancel, MonotonicMs until,
                   CancelEvent* other = nullptr);

struct WaitFd {
    int fd;
    short events;
};

/// Waits until one of two descriptors is ready; either may be -1. False, with errno, if waiting fails.
bool WaitForEither(WaitFd first, WaitFd second, CancelEvent* cancel, MonotonicMs until, WaitResult& result);

/// Waits for that long, or until the event is cancelled. The event may be null.
void Pause(MonotonicMs duration, CancelEvent* cancel);

}  // namespace zarip::osa
