// SPDX-License-Identifier: MIT

#include "zarip/osa/Thread.h"

#include <cxxabi.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <time.h>

#include <atomic>
#include <cerrno>

#include "osa/CurrentThread.h"
#include "osa/DescribeCaught.h"
#include "osa/PerThread.h"
#include "zarip/core/Logger.h"
#include "zarip/osa/Exception.h"
#include "zarip/osa/MutexAutoLock.h"
#include "zarip/osa/Runnable.h"
#include "zarip/osa/Semaphore.h"
#include "zarip/osa/Signal.h"

namespace zarip::osa {

namespace {

/// What a thread needs to know about itself. It lives until the thread has ended, whatever happens to the
/// object, so the thread reads it without a lock.
struct Identity {
    /// Set before the thread is released.
    std::string name;
    /// The object, or null once it has been destroyed.
    std::atomic<Thread*> owner{nullptr};
};

/// The identity of the calling thread, or null on a thread that this class has not made.
thread_local const Identity* t_identity __attribute__((tls_model("initial-exec"))) = nullptr;

}  // namespace

/// What the object and its thread share; it lives as long as either of them. Everything except the atomics is
/// set before the thread is released.
struct Thread::StartRecord : Identity {
    core::Logger* logger = nullptr;
    /// The new thread takes it before anything else. `Run()` releases it, or the destructor if the thread was
    /// never run.
    mutable Semaphore start{"Thread::start", 1, 0};
    Runnable* runnable = nullptr;
    signed char priority = 0;
    std::atomic<bool> cancelled{false};
    /// A call of `Join()` waits or has succeeded.
    std::atomic<bool> joining{false};
    /// The system may have given the id to another thread.
    std::atomic<bool> joined{false};
};

namespace {

using HeldRecord = std::shared_ptr<const Identity>;

/// Keep the records of the threads until the objects of their storage are destroyed, so that the destructors
/// of those can still log.
const PerThread<HeldRecord>& HeldRecords() {
    static const PerThread<HeldRecord> s_records([](void* held) {
        t_identity = nullptr;
        delete static_cast<HeldRecord*>(held);
    });
    return s_records;
}

/// The calling thread has a record for the length of a scope, and for longer if there is memory for that.
class IdentityScope {
public:
    explicit IdentityScope(std::unique_ptr<HeldRecord> record) : _record(std::move(record)) {
        t_identity = _record->get();
        if (HeldRecords().Set(_record.get())) {
            static_cast<void>(_record.release());
        }
    }
    IdentityScope(const IdentityScope&) = delete;
    IdentityScope& operator=(const IdentityScope&) = delete;
    ~IdentityScope() {
        if (_record) {
            t_identity = nullptr;
        }
    }

private:
    std::unique_ptr<HeldRecord> _record;
};

constexpr unsigned int kMinStackSize = 65'536;
constexpr unsigned int kPageSize = 4'096;
constexpr unsigned int kGuardSize = 131'072;
constexpr signed char kLowestNicePriority = -20;
constexpr const char* kThreadsLockName = "Thread::s_threadsLock";

// They are read once from the system. Several threads may do that at the same time and then store the same
// values.
std::atomic<int> s_roundRobinMin{-1};
std::atomic<int> s_roundRobinMax{-1};

int RoundRobinMin() {
    if (s_roundRobinMin < 0) {
        s_roundRobinMin = ::sched_get_priority_min(SCHED_RR);
        s_roundRobinMax = ::sched_get_priority_max(SCHED_RR);
    }
    return s_roundRobinMin;
}

int RoundRobinRange() {
    const int min = RoundRobinMin();
    return s_roundRobinMax - min;
}

bool IsRealTime(int priority) {
    return priority < kLowestNicePriority;
}

// Deliberate: a priority below -119 maps beyond the system's range and is passed on. The system refuses it: a
// thread that runs keeps its class and priority, and a new one cannot be created.
int ToSystemPriority(int priority) {
    return RoundRobinMin() - RoundRobinRange() * (priority + 21) / 98;
}

signed char FromSystemPriority(int priority) {
    return static_cast<signed char>((RoundRobinMin() - priority) * 98 / RoundRobinRange() - 21);
}

void SetNiceValue(int priority) {
    ::setpriority(PRIO_PROCESS, 0, priority);
}

void SetSchedulingClass(pthread_t thread, int priority) {
    sched_param parameter{};
    if (IsRealTime(priority)) {
        parameter.sched_priority = ToSystemPriority(priority);
        ::pthread_setschedparam(thread, SCHED_RR, &parameter);
    } else {
        ::pthread_setschedparam(thread, SCHED_OTHER, &parameter);
    }
}

/// The priority of a thread; `isCaller` is whether its nice value can be queried.
signed char PriorityOf(pthread_t thread, bool isCaller) {
    int policy = 0;
    sched_param parameter{};
    if (::pthread_getschedparam(thread, &policy, &parameter) != 0) {
        throw Exception("Priority Error");
    }
    if (policy != SCHED_OTHER) {
        return FromSystemPriority(parameter.sched_priority);
    }
    if (!isCaller) {
        throw Exception("Can't get priority from a different (SCHED_OTHER) thread");
    }
    return static_cast<signed char>(::getpriority(PRIO_PROCESS, 0));
}

unsigned int RoundStackSize(unsigned int size) {
    if (size < kMinStackSize) {
        return kMinStackSize;
    }
    return (size + kPageSize - 1) / kPageSize * kPageSize;
}

void Check(int result, const char* text) {
    if (result != 0) {
        throw Exception("%s", text);
    }
}

/// Thread attributes for the length of a scope.
class Attributes {
public:
    Attributes(unsigned int stackSize, int priority) {
        Check(::pthread_attr_init(&_attributes), "Create Thread Error");
        try {
            SetAttributes(stackSize, priority);
        } catch (...) {
            ::pthread_attr_destroy(&_attributes);
            throw;
        }
    }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;
    ~Attributes() { ::pthread_attr_destroy(&_attributes); }

    const pthread_attr_t* Get() const { return &_attributes; }

private:
    void SetAttributes(unsigned int stackSize, int priority) {
        Check(::pthread_attr_setstacksize(&_attributes, std::size_t{stackSize} + kGuardSize),
              "Set Stack Size failed");
        Check(::pthread_attr_setguardsize(&_attributes, kGuardSize), "Set Stack Guard Size failed");
        Check(::pthread_attr_setinheritsched(&_attributes, PTHREAD_EXPLICIT_SCHED),
              "Set Inherit Sched failed");
        Check(::pthread_attr_setschedpolicy(&_attributes, IsRealTime(priority) ? SCHED_RR : SCHED_OTHER),
              "Set Sched Policy failed");
        sched_param parameter{};
        parameter.sched_priority = IsRealTime(priority) ? ToSystemPriority(priority) : 0;
        ::pthread_attr_setschedparam(&_attributes, &parameter);
    }

    pthread_attr_t _attributes;
};

}  // namespace

const char* const Thread::kMainThreadName = "ZARIP";

// The registry of threads is for a debugger. No code looks a thread up here, because the system gives the id
// of a thread that has ended to another one. Neither object is ever destroyed, because threads that are alive
// at exit still use them.
std::map<pthread_t, Thread*>& Thread::s_threads() {
    static auto* const threads = new std::map<pthread_t, Thread*>;
    return *threads;
}

Mutex& Thread::s_threadsLock() {
    // A fork holds the mutex as well, because a thread of the child may ask for its object, as logging does.
    // The child gets a new mutex, since a recursive mutex belongs to the thread of the parent that has taken
    // it.
    static std::atomic<Mutex*> s_lock{[] {
        ::pthread_atfork([]() ZARIP_NO_THREAD_SAFETY_ANALYSIS { s_threadsLock().Lock(); },
                         []() ZARIP_NO_THREAD_SAFETY_ANALYSIS { s_threadsLock().Release(); },
                         [] { s_lock = new Mutex(kThreadsLockName); });
        return new Mutex(kThreadsLockName);
    }()};
    return *s_lock;
}

Thread* Thread::s_main = [] {
    s_threadsLock();  // before the locks of the logger, so that a fork takes it after them
    auto* const main = new Thread;
    t_identity = main->_context.get();
    return main;
}();

Thread::Thread(const char* name, Runnable* runnable, unsigned int stackSize, signed char priority)
    : _logger(core::Logger::GetLogger(kMainThreadName)),
      _id(),
      _started(false),
      _context(std::make_shared<StartRecord>()),
      _stackSize(RoundStackSize(stackSize)),
      _name(name != nullptr ? name : ""),
      _runnable(runnable) {
    _context->logger = _logger;
    _context->runnable = runnable;
    _context->priority = priority;
    _context->name = _name;
    _context->owner = this;

    const MutexAutoLock lock(&s_threadsLock());
    auto argument = std::make_unique<HeldRecord>(_context);
    const Attributes attributes(_stackSize, priority);
    Check(::pthread_create(&_id, attributes.Get(), &Thread::Entry, argument.get()), "Create Thread Error");
    static_cast<void>(argument.release());
    try {
        s_threads()[_id] = this;
    } catch (...) {
        _context->cancelled = true;
        _context->start.Release();
        ::pthread_detach(_id);
        throw;
    }
    if (_runnable != nullptr) {
        _runnable->_thread = this;
    }
}

Thread::Thread()
    : _logger(core::Logger::GetLogger(kMainThreadName)),
      _id(::pthread_self()),
      _started(true),
      _context(std::make_shared<StartRecord>()),
      _stackSize(0),
      _name(kMainThreadName),
      _runnable(nullptr) {
    _context->logger = _logger;
    _context->name = _name;
    _context->owner = this;
    const MutexAutoLock lock(&s_threadsLock());
    s_threads()[_id] = this;
}

Thread::~Thread() {
    _context->owner = nullptr;
    try {
        const MutexAutoLock lock(&s_threadsLock());
        // The system may have given the id to a younger thread by now; then the entry is that thread's.
        const auto entry = s_threads().find(_id);
        if (entry != s_threads().end() && entry->second == this) {
            s_threads().erase(entry);
        }
    } catch (...) {
        _logger->Warning("~Thread caught exception: %s", DescribeCaught());
    }
    if (_runnable != nullptr && _runnable->_thread == this) {
        _runnable->_thread = nullptr;
    }
    if (!_started) {
        _context->cancelled = true;
        try {
            _context->start.Release();
        } catch (...) {
            // The unit was released already, so the thread runs.
        }
        ::pthread_join(_id, nullptr);
    } else if (_stackSize != 0 && !_context->joined) {
        ::pthread_detach(_id);
    }
}

void* Thread::Entry(void* argument) {
    std::unique_ptr<HeldRecord> handed(static_cast<HeldRecord*>(argument));
    const auto record = std::static_pointer_cast<const StartRecord>(*handed);
    record->start.Lock();
    if (record->cancelled) {
        return nullptr;
    }
    const IdentityScope identity(std::move(handed));
    if (!IsRealTime(record->priority)) {
        SetNiceValue(record->priority);
    }
    ::prctl(PR_SET_NAME, record->name.c_str());
    try {
        record->runnable->Run();
    } catch (const abi::__forced_unwind&) {
        throw;  // pthread_exit: the body ends in its own way
    } catch (...) {
        record->logger->Error("Unhandled exception from thread entry point: %s", DescribeCaught());
        record->logger->Error("Application will terminate");
        throw;
    }
    return nullptr;
}

const Thread::StartRecord& Thread::Context() const {
    if (!_context) {
        throw Exception("Invalid Thread Context");
    }
    return *_context;
}

void Thread::Run() {
    if (!_context || _started.exchange(true)) {
        throw Exception("Invalid Thread Context");
    }
    _context->start.Release();
}

int Thread::Join() {
    Context();
    if (_context->joining.exchange(true)) {
        return EINVAL;
    }
    int result;
    do {
        result = ::pthread_join(_id, nullptr);
    } while (result == EINTR);
    if (result == 0) {
        _context->joined = true;
    } else {
        _context->joining = false;
    }
    return result;
}

int Thread::Signal(int signal) {
    const int result = Context().joined ? ESRCH : ::pthread_kill(_id, signal);
    if (result == ESRCH) {
        throw Exception("invalid pid");
    }
    if (result == EINVAL) {
        throw Exception("invalid signal");
    }
    return result;
}

pthread_t Thread::GetID() const {
    Context();
    return ::pthread_self();
}

signed char Thread::GetPriority() const {
    if (Context().joined) {
        throw Exception("Priority Error");
    }
    return PriorityOf(_id, ::pthread_equal(_id, ::pthread_self()) != 0);
}

void Thread::SetPriority(signed char priority) {
    if (Context().joined) {
        return;
    }
    SetSchedulingClass(_id, priority);
    if (IsRealTime(priority)) {
        return;
    }
    if (::pthread_equal(_id, ::pthread_self()) != 0) {
        SetNiceValue(priority);
    } else {
        _logger->Debug("Can't set priority from a different (SCHED_OTHER) thread");
    }
}

unsigned int Thread::GetStackSize() const {
    Context();
    return _stackSize;
}

unsigned int Thread::GetMinStackSize() const {
    return kMinStackSize;
}

const std::string& Thread::GetName() const {
    Context();
    return _name;
}

void Thread::CurrentThread::MicroSleep(unsigned int microseconds) {
    timespec duration{};
    duration.tv_sec = static_cast<time_t>(microseconds / 1'000'000);
    duration.tv_nsec = static_cast<long>(microseconds % 1'000'000) * 1'000;
    if (::nanosleep(&duration, nullptr) == 0) {
        return;
    }
    switch (errno) {
        case EFAULT:
            throw Exception("big deal");
        case EINVAL:
            throw Exception("invalid input");
        case EINTR:
            // Deliberate: the number is always 2, whatever the signal was. Callers only take it as
            // "interrupted".
            throw osa::Signal(2);
        default:
            throw Exception("unknown error");
    }
}

void Thread::CurrentThread::Sleep(unsigned int milliseconds) {
    MicroSleep(milliseconds * 1000U);
}

void Thread::CurrentThread::Yield() {
    ::sched_yield();
}

signed char Thread::CurrentThread::GetPriority() {
    return PriorityOf(::pthread_self(), true);
}

void Thread::CurrentThread::SetPriority(signed char priority) {
    SetSchedulingClass(::pthread_self(), priority);
    if (!IsRealTime(priority)) {
        SetNiceValue(priority);
    }
}

Thread* Thread::CurrentThread::ThreadPtr() {
    if (t_identity != nullptr) {
        return t_identity->owner;
    }
    const MutexAutoLock lock(&s_threadsLock());
    s_threads().emplace(::pthread_self(), nullptr);
    return nullptr;
}

const char* CurrentThreadName() {
    return t_identity != nullptr && t_identity->owner != nullptr ? t_identity->name.c_str() : nullptr;
}

}  // namespace zarip::osa
