// SPDX-License-Identifier: MIT

#pragma once

#include <pthread.h>

#include <memory>

#include <zarip/osa/Export.h>
#include <zarip/osa/ThreadAnnotations.h>
#include <zarip/osa/Timeout.h>

namespace zarip::osa {

/// A named recursive mutex. The thread that owns it may lock it again, and must release it as often as it has
/// locked it. *Thread-safe*.
///
/// Time-outs are in milliseconds; `kWaitForEver` waits without limit and 0 does not wait. Deadlines are times
/// of the real-time clock. If that clock is set back, a wait still ends within a second after its time-out
/// has passed on the monotonic clock.
///
/// All operations throw `LockException`: "Max recursions reached", "Thread already owns lock" and "UNKNOWN
/// ERROR" with `LockFailed`, "Lock Error" with `LockInvalid`, "Timeout" with `LockTimeout`.
class ZARIP_EXPORT ZARIP_CAPABILITY("mutex") Mutex {
public:
    /// @param name  is shown by debuggers. It is *not owned*, never copied, and must outlive the mutex; null
    ///     means "(unknown)".
    explicit Mutex(const char* name);
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    virtual ~Mutex();

    /// Waits until the caller holds the lock. Throws "Timeout" if the time-out passes before; with 0, if the
    /// mutex is not free.
    void Lock(unsigned int timeoutMs = kWaitForEver) ZARIP_ACQUIRE();

    /// Takes the lock without waiting. Returns false if another thread holds it.
    bool TryLock() ZARIP_TRY_ACQUIRE(true);

    /// Does the same as `Lock`, but returns false instead of throwing "Timeout".
    bool TryLockFor(unsigned int timeoutMs) ZARIP_TRY_ACQUIRE(true);

    /// Releases the lock once. Throws "Thread does not own lock" (`LockFailed`) if the caller is not the
    /// owner.
    void Release() ZARIP_RELEASE();

private:
    friend class MutexAutoLock;  // locks without a call into the library

    struct Context {
        const char* name;
        pthread_mutex_t mutex;
    };

    /// Throws the exception for the result of a failed lock call.
    [[noreturn]] static void ThrowLockFailure(int result);

    std::unique_ptr<Context> _context;
};

}  // namespace zarip::osa
