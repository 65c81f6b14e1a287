// SPDX-License-Identifier: MIT

#pragma once

#include <time.h>

namespace zarip::osa {

/// The end of a timed wait: an absolute time on the real-time clock, and the same duration on the monotonic
/// clock. If the real-time clock is set back during the wait, the second one still ends it.
class Deadline {
public:
    /// Throws LockException "clock_gettime failed".
    explicit Deadline(unsigned int timeoutMs);

    /// The clock of `NextLook`: a wait on the real-time clock would itself last longer if that clock is set
    /// back.
    static constexpr clockid_t kLookClock = CLOCK_MONOTONIC;

    /// The latest time at which to check `HasPassed` again: the end itself, or one second from now.
    timespec NextLook() const;

    bool HasPassed() const;

private:
    timespec _realTime;
    timespec _monotonic;
};

}  // namespace zarip::osa
