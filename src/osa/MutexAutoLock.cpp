// SPDX-License-Identifier: MIT
#define ZARIP_MUTEX_AUTO_LOCK_INLINE
#include "zarip/osa/MutexAutoLock.h"

#include <cstdio>

#include "zarip/osa/LockException.h"

namespace zarip::osa {

MutexAutoLock::MutexAutoLock(Mutex* mutex, unsigned int timeoutMs,
                             bool throwOnTimeout) ZARIP_NO_THREAD_SAFETY_ANALYSIS
    : _mutex(mutex),
      _locked(mutex->TryLockFor(timeoutMs)) {
    if (!_locked && throwOnTimeout) {
        throw LockException("Timeout", LockException::LockTimeout);
    }
}

void MutexAutoLock::ReportFailedRelease() {
    std::fputs("Error: MutexAutoLock::~MutexAutoLock", stdout);
}

}  // namespace zarip::osa
