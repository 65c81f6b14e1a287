// SPDX-License-Identifier: MIT

#include "zarip/osa/Semaphore.h"

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <string>

#include "osa/Deadline.h"
#include "zarip/osa/LockException.h"

namespace zarip::osa {

struct ZARIP_HIDDEN Semaphore::Context {
    bool TakeUnit(unsigned int timeoutMs);
    bool Wait(unsigned int timeoutMs);
    void UnlockAndSignal();

    const char* name;
    pthread_mutex_t mutex;
    pthread_cond_t available;
    // Both counts are wider than the 16 bits of the interface, so that no ceiling wraps.
    int count;
    int maxCount;
    int waiters;
    std::atomic<int> signalling{0};  ///< threads in `Release` that still have to signal `available`
};

namespace {

// The function is out of line, so that its callers stay small.
[[noreturn, gnu::cold, gnu::noinline]] void Throw(const char* text, LockException::LockError error) {
    throw LockException(text, error);
}

inline void LockRecord(pthread_mutex_t* mutex) {
    if (__builtin_expect(::pthread_mutex_lock(mutex) != 0, 0)) {
        Throw("pthread_mutex_lock failed", LockException::LockFailed);
    }
}

/// Counts a waiting thread for the length of a scope, with the lock held. The wait may end by an exception (a
/// clock that cannot be read) or by a cancelled thread; the lock is held then as well.
class Waiter {
public:
    Waiter(pthread_mutex_t* mutex, int& waiters) : _mutex(mutex), _waiters(waiters) { ++_waiters; }
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;
    ~Waiter() {
        --_waiters;
        ::pthread_mutex_unlock(_mutex);
    }

private:
    pthread_mutex_t* _mutex;
    int& _waiters;
};

}  // namespace

Semaphore::Semaphore(const char* name, unsigned short maxCount, unsigned short initialCount)
    : _context(std::make_unique<Context>()) {
    _context->name = name;
    _context->count = initialCount;
    _context->maxCount = maxCount;
    if (::pthread_mutex_init(&_context->mutex, nullptr) != 0) {
        throw LockException("pthread_mutex_init failed", LockException::LockInvalid);
    }
    if (::pthread_cond_init(&_context->available, nullptr) != 0) {
        ::pthread_mutex_destroy(&_context->mutex);
        throw LockException("pthread_cond_init failed", LockException::LockInvalid);
    }
}

Semaphore::~Semaphore() {
    // It sleeps, because a thread of high priority that only yields would keep the signalling thread from the
    // processor.
    while (_context->signalling.load(std::memory_order_acquire) != 0) {
        const timespec pause{0, 50'000};
        ::clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
    }
    ::pthread_cond_destroy(&_context->available);
    ::pthread_mutex_destroy(&_context->mutex);
}

/// Waits for a unit and takes it. Called with the lock, which it releases.
[[gnu::noinline]] bool Semaphore::Context::Wait(unsigned int timeoutMs) {
    const Waiter waiter(&mutex, waiters);
    if (timeoutMs == kWaitForEver) {
        while (count <= 0) {
            ::pthread_cond_wait(&available, &mutex);
        }
    } else {
        const Deadline deadline(timeoutMs);
        while (count <= 0 && !deadline.HasPassed()) {
            const timespec look = deadline.NextLook();
            ::pthread_cond_clockwait(&available, &mutex, Deadline::kLookClock, &look);
        }
        if (count <= 0) {
            return false;
        }
    }
    --count;
    return true;
}

/// Called with the lock, which it releases before it signals: a woken thread that runs at once on the same
/// processor would otherwise find the lock taken. A waiter that takes the unit may destroy the semaphore
/// meanwhile, so the destructor waits.
[[gnu::noinline]] void Semaphore::Context::UnlockAndSignal() {
    signalling.fetch_add(1, std::memory_order_relaxed);
    ::pthread_mutex_unlock(&mutex);
    ::pthread_cond_signal(&available);
    signalling.fetch_sub(1, std::memory_order_release);
}

inline bool Semaphore::Context::TakeUnit(unsigned int timeoutMs) {
    LockRecord(&mutex);
    // Usually there is a unit, and the clock need not be read.
    if (__builtin_expect(count <= 0, 0)) {
        if (timeoutMs != 0) {
            return Wait(timeoutMs);
        }
        ::pthread_mutex_unlock(&mutex);
        return false;
    }
    --count;
    ::pthread_mutex_unlock(&mutex);
    return true;
}

bool Semaphore::TryLock(unsigned int timeoutMs) {
    if (_context == nullptr) {
        Throw("_context was NULL", LockException::LockInvalid);
    }
    return _context->TakeUnit(timeoutMs);
}

void Semaphore::Lock(unsigned int timeoutMs) {
    if (_context == nullptr) {
        Throw("_context was NULL", LockException::LockInvalid);
    }
    if (!_context->TakeUnit(timeoutMs)) {
        Throw(("Semaphore::Lock timeout after " + std::to_string(timeoutMs) + "ms").c_str(),
              LockException::LockTimeout);
    }
}

void Semaphore::Release() {
    Context* const context = _context.get();
    if (context != nullptr) {
        LockRecord(&context->mutex);
        if (__builtin_expect(context->count < context->maxCount, 1)) {
            ++context->count;
            if (context->waiters == 0) {
                ::pthread_mutex_unlock(&context->mutex);
            } else {
                context->UnlockAndSignal();
            }
            return;
        }
        ::pthread_mutex_unlock(&context->mutex);
    }
    Throw("maxCount was reached", LockException::LockInvalid);
}

}  // namespace zarip::osa
