// SPDX-License-Identifier: MIT

#include "osa/FailingCalls.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/xattr.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

thread_local FailingCall* t_failing = nullptr;
thread_local bool t_clockIsAhead = false;
thread_local bool t_clockIsBack = false;

/// The function that the one of this file replaces: that of the sanitizer if there is one, otherwise that of
/// the C library.
template <class Function>
Function* Replaced(Function* sanitizers, const char* name) {
    if (sanitizers != nullptr) {
        return sanitizers;
    }
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

FailingCall::FailingCall(const char* function, int result, std::function<void()> meanwhile)
    : _function(function), _result(result), _meanwhile(std::move(meanwhile)), _outer(t_failing) {
    t_failing = this;
}

FailingCall::~FailingCall() {
    t_failing = _outer;
}

const FailingCall* FailingCall::Find(const char* function) {
    const FailingCall* call = t_failing;
    while (call != nullptr && std::strcmp(call->_function, function) != 0) {
        call = call->_outer;
    }
    return call;
}

int FailingCall::Result() const {
    if (_meanwhile) {
        _meanwhile();
    }
    return _result;
}

ClockSetBack::ClockSetBack() {
    t_clockIsAhead = true;
}

ClockSetBack::~ClockSetBack() {
    t_clockIsAhead = false;
}

void SetClockBackForOneLook() {
    t_clockIsBack = true;
}

// NOLINTBEGIN(bugprone-reserved-identifier)
#define CAN_FAIL_AS(specifier, type, function, parameters, arguments)                                 \
    __attribute__((weak)) type __interceptor_##function parameters;                                   \
    __attribute__((visibility("default"))) type function parameters specifier {                       \
        if (const FailingCall* call = FailingCall::Find(#function)) {                                 \
            return call->Result();                                                                    \
        }                                                                                             \
        static const auto replaced = Replaced<type parameters>(&__interceptor_##function, #function); \
        return replaced arguments;                                                                    \
    }

#define CAN_FAIL(function, parameters, arguments) CAN_FAIL_AS(noexcept, int, function, parameters, arguments)

extern "C" {

CAN_FAIL(pthread_mutexattr_settype, (pthread_mutexattr_t * attributes, int kind), (attributes, kind))
CAN_FAIL(pthread_mutex_init, (pthread_mutex_t * mutex, const pthread_mutexattr_t* attributes),
         (mutex, attributes))
CAN_FAIL(pthread_mutex_trylock, (pthread_mutex_t * mutex), (mutex))
CAN_FAIL(pthread_cond_init, (pthread_cond_t * condition, const pthread_condattr_t* attributes),
         (condition, attributes))
CAN_FAIL(pthread_attr_setstacksize, (pthread_attr_t * attributes, std::size_t size), (attributes, size))
CAN_FAIL(pthread_attr_setguardsize, (pthread_attr_t * attributes, std::size_t size), (attributes, size))
CAN_FAIL(pthread_attr_setinheritsched, (pthread_attr_t * attributes, int inherit), (attributes, inherit))
CAN_FAIL(pthread_attr_setschedpolicy, (pthread_attr_t * attributes, int policy), (attributes, policy))
CAN_FAIL(pthread_create,
         (pthread_t * thread, const pthread_attr_t* attributes, void* (*entry)(void*), void* argument),
         (thread, attributes, entry, argument))
CAN_FAIL(unlinkat, (int folder, const char* path, int flags), (folder, path, flags))
CAN_FAIL_AS(, int, eventfd_write, (int fd, eventfd_t value), (fd, value))
CAN_FAIL(fsetxattr, (int fd, const char* name, const void* value, std::size_t size, int flags),
         (fd, name, value, size, flags))
CAN_FAIL_AS(, ssize_t, pwritev64v2, (int fd, const iovec* parts, int count, off64_t offset, int flags),
            (fd, parts, count, offset, flags))
CAN_FAIL_AS(, int, pthread_setcancelstate, (int state, int* old), (state, old))
CAN_FAIL(pthread_getschedparam, (pthread_t thread, int* policy, sched_param* parameter),
         (thread, policy, parameter))

__attribute__((weak)) int __interceptor_pthread_cond_clockwait(pthread_cond_t* condition,
                                                               pthread_mutex_t* mutex, clockid_t clock,
                                                               const timespec* end);
__attribute__((visibility("default"))) int pthread_cond_clockwait(pthread_cond_t* condition,
                                                                  pthread_mutex_t* mutex, clockid_t clock,
                                                                  const timespec* end) {
    if (const FailingCall* call = FailingCall::Find("pthread_cond_clockwait")) {
        ::pthread_mutex_unlock(mutex);
        const int result = call->Result();
        ::pthread_mutex_lock(mutex);
        return result;
    }
    static const auto replaced = Replaced<decltype(pthread_cond_clockwait)>(
        &__interceptor_pthread_cond_clockwait, "pthread_cond_clockwait");
    return replaced(condition, mutex, clock, end);
}

// Folders only.
__attribute__((weak)) int __interceptor_fsync(int fd);
__attribute__((visibility("default"))) int fsync(int fd) {
    struct stat status {};
    const FailingCall* const call = FailingCall::Find("fsync");
    if (call != nullptr && ::fstat(fd, &status) == 0 && S_ISDIR(status.st_mode)) {
        return call->Result();
    }
    static const auto replaced = Replaced<int(int)>(&__interceptor_fsync, "fsync");
    return replaced(fd);
}

// It fails as that of a file system does, which closes all the same.
__attribute__((weak)) int __interceptor_close(int fd);
__attribute__((visibility("default"))) int close(int fd) {
    static const auto replaced = Replaced<int(int)>(&__interceptor_close, "close");
    const int result = replaced(fd);
    const FailingCall* const call = FailingCall::Find("close");
    return call != nullptr ? call->Result() : result;
}

__attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (const FailingCall* call = FailingCall::Find("clock_gettime")) {
        return call->Result();
    }
#ifdef SYS_clock_gettime64
    constexpr long kClockGetTime = SYS_clock_gettime64;
#else
    constexpr long kClockGetTime = SYS_clock_gettime;
#endif
    const auto result = static_cast<int>(::syscall(kClockGetTime, clock, time));
    if (clock == CLOCK_REALTIME && std::exchange(t_clockIsAhead, false)) {
        time->tv_sec += 3600;
    }
    return result;
}

__attribute__((visibility("default"))) int gettimeofday(timeval* time, void*) noexcept {
    timespec now{};
    const int result = ::clock_gettime(CLOCK_REALTIME, &now);
    time->tv_sec = std::exchange(t_clockIsBack, false) ? 0 : now.tv_sec;
    time->tv_usec = static_cast<suseconds_t>(now.tv_nsec / 1'000);
    return result;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
