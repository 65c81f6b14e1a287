// SPDX-License-Identifier: MIT

#pragma once

#include <time.h>

namespace zarip::osa {

/// The end of a timed wait: an absolute time on the real-time clock, and beside it the same duration on the
/// monotonic clock, so that a clock that is set back while somebody waits does not stretch the wait.
class Deadline {
public:
    /// Throws LockException "clock_gettime failed".
    explicit Deadline(unsigned int timeoutMs);

    /// The clock of `NextLook`: a wait on the real-time clock would itself be stretched when that is set
    /// back.
    static constexpr clockid_t kLookClock = CLOCK_MONOTONIC;

    /// Until when to wait at the most before looking at `HasPassed` again: the end itself, or one second from
    /// now.
    timespec NextLook() const;

    bool HasPassed() const;

private:
    timespec _realTime;
    timespec _monotonic;
};

}  // namespace zarip::osa
