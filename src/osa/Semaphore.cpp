#include "zarip/osa/Semaphore.h"

#include <pthread.h>

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
};

namespace {

constexpr unsigned int kNoLimit = 0xFFFFFFFFU;

void LockRecord(pthread_mutex_t* mutex) {
    if (__builtin_expect(::pthread_mutex_lock(mutex) != 0, 0)) {
        throw LockException("pthread_mutex_lock failed", LockException::LockFailed);
    }
}

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
    LockRecord(&context->mutex);
    ++context->waiters;
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
    --context->waiters;
    const bool taken = context->count > 0;
    if (taken) {
        --context->count;
    }
    ::pthread_mutex_unlock(&context->mutex);
    return taken;
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
            // Signalled with the lock held: a waiter that takes this unit may destroy the semaphore at once.
            if (context->waiters > 0) {
                ::pthread_cond_signal(&context->available);
            }
            ::pthread_mutex_unlock(&context->mutex);
            return;
        }
        ::pthread_mutex_unlock(&context->mutex);
    }
    throw LockException("maxCount was reached", LockException::LockInvalid);
}

}  // namespace zarip::osa
