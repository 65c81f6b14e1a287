#pragma once

#include <zarip/osa/Mutex.h>

namespace zarip::osa {

/// Holds a `Mutex` for the length of a scope. One thread at a time.
class ZARIP_EXPORT ZARIP_SCOPED_CAPABILITY MutexAutoLock {
public:
    /// @param mutex  *not owned*.
    /// @param timeoutMs  as in `Mutex`.
    /// @param throwOnTimeout  when false, a wait that ran out builds an object that holds, and later
    /// releases, nothing;
    ///     nothing tells the two cases apart, so this form suits only callers that can go on without the
    ///     lock.
    /// Throws `LockException` "Timeout", `LockTimeout`.
    explicit MutexAutoLock(Mutex* mutex, unsigned int timeoutMs = 0xFFFFFFFFU, bool throwOnTimeout = true)
        ZARIP_ACQUIRE(mutex);
    MutexAutoLock(const MutexAutoLock&) = delete;
    MutexAutoLock& operator=(const MutexAutoLock&) = delete;

    /// Never throws; a failed release prints "Error: MutexAutoLock::~MutexAutoLock" to standard output.
    ~MutexAutoLock() ZARIP_RELEASE();

private:
    Mutex* _mutex;
    bool _locked;
};

}  // namespace zarip::osa
