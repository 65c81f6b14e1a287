// SPDX-License-Identifier: MIT

#pragma once

#include <pthread.h>

#include <zarip/osa/Mutex.h>

// A source of the library defines it as empty, so that the library exports these functions. Programs that
// were built with version 0.1.0 call the exported destructor.
#ifndef ZARIP_MUTEX_AUTO_LOCK_INLINE
#define ZARIP_MUTEX_AUTO_LOCK_INLINE inline
#endif

namespace zarip::osa {

/// Holds a `Mutex` for the length of a scope. *One thread at a time.*
class ZARIP_EXPORT ZARIP_SCOPED_CAPABILITY MutexAutoLock {
public:
    /// Takes the lock and waits for it without limit. This is the usual form, which is inline.
    /// @param mutex  *not owned*.
    explicit MutexAutoLock(Mutex* mutex) ZARIP_ACQUIRE(mutex);

    /// Takes the lock within a time-out. Throws `LockException` "Timeout" (`LockTimeout`).
    /// @param timeoutMs  as in `Mutex`.
    /// @param throwOnTimeout  if it is false and the time-out passes, the object holds nothing and releases
    ///     nothing. The caller cannot distinguish the two cases, so this form suits only a caller that can
    ///     continue without the lock.
    MutexAutoLock(Mutex* mutex, unsigned int timeoutMs, bool throwOnTimeout = true) ZARIP_ACQUIRE(mutex);
    MutexAutoLock(const MutexAutoLock&) = delete;
    MutexAutoLock& operator=(const MutexAutoLock&) = delete;

    /// Releases the lock. Never throws; if the release fails, it prints "Error:
    /// MutexAutoLock::~MutexAutoLock" to standard output.
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
