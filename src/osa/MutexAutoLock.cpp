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

MutexAutoLock::~MutexAutoLock() ZARIP_NO_THREAD_SAFETY_ANALYSIS {
    if (_locked && _mutex != nullptr) {
        try {
            _mutex->Release();
        } catch (...) {
            std::fputs("Error: MutexAutoLock::~MutexAutoLock", stdout);
        }
    }
}

}  // namespace zarip::osa
