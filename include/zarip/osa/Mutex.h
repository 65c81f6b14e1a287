// SPDX-License-Identifier: MIT

#pragma once

#include <pthread.h>

#include <memory>

#include <zarip/osa/Export.h>
#include <zarip/osa/ThreadAnnotations.h>
#include <zarip/osa/Timeout.h>

namespace zarip::osa {

/// A named recursive mutex. Its owner may lock it again, and releases it as often as it has locked it.
/// *Thread-safe*.
///
/// Time-outs are in milliseconds; `kWaitForEver` waits without limit and 0 does not wait. Deadlines are times
/// of the real-time clock. If that clock is set back, a wait still ends within a second after its time-out
/// has passed on the monotonic clock.
///
/// All operations throw `LockException`: "Max recursions reached", "Thread already owns lock" and "UNKNOWN
/// ERROR" with `LockFailed`, "Lock Error" with `LockInvalid`, "Timeout" with `LockTimeout`.
class ZARIP_EXPORT ZARIP_CAPABILITY("mutex") Mutex {
public:
    /// @param name  *not owned*: for a debugger to show, never copied, must outlive the mutex; null means
    ///     "(unknown)".
    explicit Mutex(const char* name);
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    virtual ~Mutex();

    /// Returns only when the lock is held. Throws "Timeout" when the time-out has passed, which for 0 means
    /// that the mutex is not free.
    void Lock(unsigned int timeoutMs = kWaitForEver) ZARIP_ACQUIRE();

    /// Takes the lock if that needs no wait. False if another thread holds it.
    bool TryLock() ZARIP_TRY_ACQUIRE(true);

    /// Like `Lock`, but returns false instead of throwing "Timeout".
    bool TryLockFor(unsigned int timeoutMs) ZARIP_TRY_ACQUIRE(true);

    /// Throws "Thread does not own lock" (`LockFailed`) if the caller is not the owner.
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
