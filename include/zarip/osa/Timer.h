// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

#include <zarip/osa/Export.h>
#include <zarip/osa/TimeStruct.h>

namespace zarip::osa {

class ITimerCallback;
class TimerService;

/// Calls back once at a time of the real-time clock; never early. *Thread-safe*, but for assignment and
/// destruction.
///
/// The library reserves SIGUSR1 for timers: it is ignored by the process and waited for by one thread,
/// "Timer", so an expiry interrupts nothing and a signal from outside does no harm. Programs that the process
/// starts inherit that it is ignored. The child of a fork has neither timers nor that thread: a process that
/// becomes a daemon does so before it makes its first timer.
///
/// Failures throw `Exception`: "Invalid timer event", "Invalid clock", "Could not process request", "Invalid
/// action", "Invalid signal", "Invalid setting", "Invalid timer ID", "UNKNOWN ERROR".
class ZARIP_EXPORT Timer {
public:
    /// @param callback  *not owned*, must outlive the timer; null throws "Illegal NULL callback".
    explicit Timer(ITimerCallback* callback);

    /// A copy shares the alarm: whichever is started sets it, and it ends with the first of them that is
    /// destroyed. Better not copied at all.
    Timer(const Timer& other);
    Timer& operator=(const Timer& other);

    /// As `Stop`.
    virtual ~Timer();

    /// Arms the timer, in place of what it was armed for; a time that has passed, 0 s 0 us included, calls
    /// back at once.
    /// @param expiry  of the real-time clock.
    /// @param userData  *not owned*, handed to the callback.
    void Start(const TimeStruct& expiry, void* userData);

    /// Disarms the timer, also when a callback that runs starts it anew. Waits for that callback: once this
    /// has returned it does not run, unless the caller is the callback. Hold no lock that the callback takes.
    void Stop();

    /// Disarms the timer and calls back at once on this thread; what the callback throws comes through. A
    /// `Stop` elsewhere does not wait for this call.
    void Expire();

private:
    friend class TimerService;
    struct PosixTimerContext;
    std::unique_ptr<PosixTimerContext> _context;
};

}  // namespace zarip::osa
