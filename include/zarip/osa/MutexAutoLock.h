// SPDX-License-Identifier: MIT

#pragma once

#include <pthread.h>

#include <zarip/osa/Mutex.h>

// The library's own source defines it as empty, so that the library exports these functions: programs built
// with version 0.1.0 call the destructor there.
#ifndef ZARIP_MUTEX_AUTO_LOCK_INLINE
#define ZARIP_MUTEX_AUTO_LOCK_INLINE inline
#endif

namespace zarip::osa {

/// Holds a `Mutex` for the length of a scope. *One thread at a time.*
class ZARIP_EXPORT ZARIP_SCOPED_CAPABILITY MutexAutoLock {
public:
    /// Waits without limit. This is the usual form, and inline.
    /// @param mutex  *not owned*.
    explicit MutexAutoLock(Mutex* mutex) ZARIP_ACQUIRE(mutex);

    /// @param timeoutMs  as in `Mutex`.
    /// @param throwOnTimeout  if it is false and the time-out passes, the object holds nothing and releases
    ///     nothing. The caller cannot distinguish the two cases, so this form suits only a caller that can
    ///     continue without the lock.
    /// Throws `LockException` "Timeout", `LockTimeout`.
    MutexAutoLock(Mutex* mutex, unsigned int timeoutMs, bool throwOnTimeout = true) ZARIP_ACQUIRE(mutex);
    MutexAutoLock(const MutexAutoLock&) = delete;
    MutexAutoLock& operator=(const MutexAutoLock&) = delete;

    /// Never throws; a failed release prints "Error: MutexAutoLock::~MutexAutoLock" to standard output.
    ~MutexAutoLock() ZARIP_RELEASE();

private:
    static void ReportFailedRelease();

    Mutex* _mutex;
    bool _locked;
};

ZARIP_MUTEX_AUTO_LOCK_INLINE MutexAutoLock::MutexAutoLock(Mutex* mutex) ZARIP_NO_THREAD_SAFETY_ANALYSIS
    : _mutex(mutex),
      _locked(true) {
    const int result = ::pthread_mutex_lock(&mutex->_context->mutex);
    if (__builtin_expect(result != 0, 0)) {
        Mutex::ThrowLockFailure(result);
    }
}

ZARIP_MUTEX_AUTO_LOCK_INLINE MutexAutoLock::~MutexAutoLock() ZARIP_NO_THREAD_SAFETY_ANALYSIS {
    if (_locked && __builtin_expect(::pthread_mutex_unlock(&_mutex->_context->mutex) != 0, 0)) {
        ReportFailedRelease();
    }
}

}  // namespace zarip::osa
