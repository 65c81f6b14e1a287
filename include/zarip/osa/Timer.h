// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

#include <zarip/osa/Export.h>
#include <zarip/osa/TimeStruct.h>

namespace zarip::osa {

class ITimerCallback;
class TimerService;

/// Calls back once at a time of the real-time clock, never early. *Thread-safe*, except for assignment and
/// destruction.
///
/// States: *armed* after `Start`; *disarmed* at first, after `Stop`, and when it has called back. `Start` and
/// `Stop` may be called in either state and any number of times.
///
/// The library reserves SIGUSR1 for timers: the process ignores it and one thread, "Timer", waits for it. So
/// an expiry interrupts no system call, and a signal from another process does no harm. Programs that the
/// process starts also ignore the signal, unless `Process` starts them. The child of a fork has neither
/// timers nor that thread, so a process that becomes a daemon must do so before it makes its first timer.
///
/// Failures throw `Exception`: "Invalid timer event", "Invalid clock", "Could not process request", "Invalid
/// action", "Invalid signal", "Invalid setting", "Invalid timer ID", "UNKNOWN ERROR".
class ZARIP_EXPORT Timer {
public:
    /// @param callback  *not owned*, must outlive the timer; null throws "Illegal NULL callback".
    explicit Timer(ITimerCallback* callback);

    /// Makes a copy that shares the alarm of the original. Starting either of them sets the alarm, and
    /// destroying either of them ends it. It is better not to copy timers at all.
    Timer(const Timer& other);
    Timer& operator=(const Timer& other);

    /// Disarms the timer as `Stop` does.
    virtual ~Timer();

    /// Arms the timer, in place of an earlier `Start`. If the time has passed, also for 0 s 0 us, it calls
    /// back at once.
    /// @param expiry  a time of the real-time clock.
    /// @param userData  *not owned*, passed to the callback.
    void Start(const TimeStruct& expiry, void* userData);

    /// Disarms the timer, also if a running callback starts it again. Waits until a running callback has
    /// returned, unless the caller is that callback. The caller must not hold a lock that the callback takes.
    void Stop();

    /// Disarms the timer and calls back at once on the calling thread. An exception from the callback is
    /// passed on. A `Stop` on another thread does not wait for this call.
    void Expire();

private:
    friend class TimerService;
    struct PosixTimerContext;
    std::unique_ptr<PosixTimerContext> _context;
};

}  // namespace zarip::osa
