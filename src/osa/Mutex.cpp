// SPDX-License-Identifier: MIT

#include "zarip/osa/Mutex.h"

#include <pthread.h>
#include <sched.h>

#include <cerrno>

#include "osa/Deadline.h"
#include "zarip/osa/LockException.h"

#if defined(__has_feature)
#define ZARIP_CLANG_HAS_FEATURE(feature) __has_feature(feature)
#else
#define ZARIP_CLANG_HAS_FEATURE(feature) 0
#endif

namespace zarip::osa {

namespace {

struct LockRow {
    int result;
    const char* text;
    LockException::LockError code;
};

// Searched from the top; the last row is for any other result.
constexpr LockRow kLockRows[] = {
    {EAGAIN, "Max recursions reached", LockException::LockFailed},
    {EBUSY, "Timeout", LockException::LockTimeout},
    {ETIMEDOUT, "Timeout", LockException::LockTimeout},
    {EINVAL, "Lock Error", LockException::LockInvalid},
    {EDEADLK, "Thread already owns lock", LockException::LockFailed},
    {0, "UNKNOWN ERROR", LockException::LockFailed},
};

constexpr LockRow kReleaseRows[] = {
    {EPERM, "Thread does not own lock", LockException::LockFailed},
    {0, "UNKNOWN ERROR", LockException::LockFailed},
};

template <std::size_t N>
[[noreturn]] void Throw(const LockRow (&rows)[N], int result) {
    std::size_t i = 0;
    while (i + 1 < N && rows[i].result != result) {
        ++i;
    }
    throw LockException(rows[i].text, rows[i].code);
}

int LockUntilLook(pthread_mutex_t* mutex, const Deadline& deadline) {
#if defined(__SANITIZE_THREAD__) || ZARIP_CLANG_HAS_FEATURE(thread_sanitizer)
    // The sanitizer does not see that pthread_mutex_clocklock takes the mutex. With a time that has passed,
    // this call only tries the lock.
    static_cast<void>(deadline);
    ::sched_yield();
    const timespec passed{};
    return ::pthread_mutex_timedlock(mutex, &passed);
#else
    const timespec look = deadline.NextLook();
    return ::pthread_mutex_clocklock(mutex, Deadline::kLookClock, &look);
#endif
}

int LockUntil(pthread_mutex_t* mutex, const Deadline& deadline) {
    for (;;) {
        const int result = LockUntilLook(mutex, deadline);
        if (result != ETIMEDOUT || deadline.HasPassed()) {
            return result;
        }
    }
}

int LockFor(pthread_mutex_t* mutex, unsigned int timeoutMs) {
    if (timeoutMs == kWaitForEver) {
        return ::pthread_mutex_lock(mutex);
    }
    if (timeoutMs == 0) {
        return ::pthread_mutex_trylock(mutex);
    }
    // Usually the mutex is free, and the clock need not be read.
    const int result = ::pthread_mutex_trylock(mutex);
    return result == EBUSY ? LockUntil(mutex, Deadline(timeoutMs)) : result;
}

bool TryResult(int result) {
    if (__builtin_expect(result == 0, 1)) {
        return true;
    }
    if (result == EBUSY || result == ETIMEDOUT) {
        return false;
    }
    Throw(kLockRows, result);
}

}  // namespace

void Mutex::ThrowLockFailure(int result) {
    Throw(kLockRows, result);
}

Mutex::Mutex(const char* name) : _context(std::make_unique<Context>()) {
    _context->name = name != nullptr ? name : "(unknown)";
    pthread_mutexattr_t attributes;
    int result = ::pthread_mutexattr_init(&attributes);
    if (result == 0) {
        if (::pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE) != 0) {
            ::pthread_mutexattr_destroy(&attributes);
            throw LockException("pthread_mutexattr_settype failed", LockException::LockFailed);
        }
        result = ::pthread_mutex_init(&_context->mutex, &attributes);
        ::pthread_mutexattr_destroy(&attributes);
    }
    if (result != 0) {
        throw LockException("pthread_mutex_init failed", LockException::LockFailed);
    }
}

Mutex::~Mutex() {
    _context->name = nullptr;
    ::pthread_mutex_destroy(&_context->mutex);
}

void Mutex::Lock(unsigned int timeoutMs) ZARIP_NO_THREAD_SAFETY_ANALYSIS {
    const int result = LockFor(&_context->mutex, timeoutMs);
    if (__builtin_expect(result != 0, 0)) {
        Throw(kLockRows, result);
    }
}

bool Mutex::TryLock() ZARIP_NO_THREAD_SAFETY_ANALYSIS {
    return TryResult(::pthread_mutex_trylock(&_context->mutex));
}

bool Mutex::TryLockFor(unsigned int timeoutMs) ZARIP_NO_THREAD_SAFETY_ANALYSIS {
    return TryResult(LockFor(&_context->mutex, timeoutMs));
}

void Mutex::Release() ZARIP_NO_THREAD_SAFETY_ANALYSIS {
    const int result = ::pthread_mutex_unlock(&_context->mutex);
    if (__builtin_expect(result != 0, 0)) {
        Throw(kReleaseRows, result);
    }
}

}  // namespace zarip::osa
