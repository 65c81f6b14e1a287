#include "zarip/osa/Semaphore.h"

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <optional>
#include <string>

#include "osa/Deadline.h"
#include "zarip/osa/LockException.h"

namespace zarip::osa {

struct Semaphore::Context {
    const char* name;
    pthread_mutex_t mutex;
    pthread_cond_t available;
    // Both counts are wider than the 16 bits of the interface, so that no ceiling wraps.
    int count;
    int maxCount;
    int waiters;
    std::atomic<int> signalling{0};  ///< those in `Release` who still have to signal `available`
};

namespace {

constexpr unsigned int kNoLimit = 0xFFFFFFFFU;

void LockRecord(pthread_mutex_t* mutex) {
    if (__builtin_expect(::pthread_mutex_lock(mutex) != 0, 0)) {
        throw LockException("pthread_mutex_lock failed", LockException::LockFailed);
    }
}

/// A waiter, which holds the lock except while it sleeps: a clock that cannot be read ends the wait.
class Waiter {
public:
    Waiter(pthread_mutex_t* mutex, int& waiters) : _mutex(mutex), _waiters(waiters) {
        LockRecord(_mutex);
        ++_waiters;
    }
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
    // A sleep, since a thread of high priority that only yields would keep the signalling one from its CPU.
    while (_context->signalling.load(std::memory_order_acquire) != 0) {
        const timespec pause{0, 50'000};
        ::clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
    }
    ::pthread_cond_destroy(&_context->available);
    ::pthread_mutex_destroy(&_context->mutex);
}

bool Semaphore::TryLock(unsigned int timeoutMs) {
    Context* context = _context.get();
    if (context == nullptr) {
        throw LockException("_context was NULL", LockException::LockInvalid);
    }
    // Taken before the lock: time spent waiting for the lock is part of the time-out.
    std::optional<Deadline> deadline;
    if (timeoutMs != 0 && timeoutMs != kNoLimit) {
        deadline.emplace(timeoutMs);
    }
    const Waiter waiter(&context->mutex, context->waiters);
    while (context->count <= 0) {
        if (timeoutMs == kNoLimit) {
            ::pthread_cond_wait(&context->available, &context->mutex);
        } else if (!deadline || deadline->HasPassed()) {
            break;
        } else {
            const timespec look = deadline->NextLook();
            ::pthread_cond_clockwait(&context->available, &context->mutex, Deadline::kLookClock, &look);
        }
    }
    if (context->count <= 0) {
        return false;
    }
    --context->count;
    return true;
}

void Semaphore::Lock(unsigned int timeoutMs) {
    if (!TryLock(timeoutMs)) {
        throw LockException("Semaphore::Lock timeout after " + std::to_string(timeoutMs) + "ms",
                            LockException::LockTimeout);
    }
}

void Semaphore::Release() {
    Context* context = _context.get();
    if (context != nullptr) {
        LockRecord(&context->mutex);
        if (context->count < context->maxCount) {
            ++context->count;
            const bool wakes = context->waiters > 0;
            if (wakes) {
                context->signalling.fetch_add(1, std::memory_order_relaxed);
            }
            ::pthread_mutex_unlock(&context->mutex);
            // Signalled without the lock: on one CPU the waiter runs at once and would only find it taken.
            // A waiter that takes this unit may destroy the semaphore meanwhile; its destructor waits.
            if (wakes) {
                ::pthread_cond_signal(&context->available);
                context->signalling.fetch_sub(1, std::memory_order_release);
            }
            return;
        }
        ::pthread_mutex_unlock(&context->mutex);
    }
    throw LockException("maxCount was reached", LockException::LockInvalid);
}

}  // namespace zarip::osa
