// SPDX-License-Identifier: MIT

#include "osa/Deadline.h"

#include "zarip/osa/LockException.h"

namespace zarip::osa {

namespace {

constexpr long kNanosecondsPerSecond = 1'000'000'000;

timespec Now(clockid_t clock) {
    timespec now{};
    if (::clock_gettime(clock, &now) != 0) {
        throw LockException("clock_gettime failed", LockException::LockFailed);
    }
    return now;
}

timespec Add(timespec time, unsigned int milliseconds) {
    while (milliseconds >= 1000) {
        milliseconds -= 1000;
        ++time.tv_sec;
    }
    time.tv_nsec += static_cast<long>(milliseconds) * 1'000'000;
    while (time.tv_nsec >= kNanosecondsPerSecond) {
        time.tv_nsec -= kNanosecondsPerSecond;
        ++time.tv_sec;
    }
    return time;
}

bool IsBefore(const timespec& a, const timespec& b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

}  // namespace

Deadline::Deadline(unsigned int timeoutMs)
    : _realTime(Add(Now(CLOCK_REALTIME), timeoutMs)), _monotonic(Add(Now(CLOCK_MONOTONIC), timeoutMs)) {}

timespec Deadline::NextLook() const {
    const timespec look = Add(Now(kLookClock), 1000);
    return IsBefore(look, _monotonic) ? look : _monotonic;
}

bool Deadline::HasPassed() const {
    return !IsBefore(Now(CLOCK_REALTIME), _realTime) || !IsBefore(Now(CLOCK_MONOTONIC), _monotonic);
}

}  // namespace zarip::osa
