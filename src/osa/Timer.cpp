#include "zarip/osa/Timer.h"

#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <map>

#include "zarip/core/Logger.h"
#include "zarip/osa/Exception.h"
#include "zarip/osa/ITimerCallback.h"
#include "zarip/osa/Mutex.h"
#include "zarip/osa/MutexAutoLock.h"
#include "zarip/osa/Runnable.h"
#include "zarip/osa/Semaphore.h"
#include "zarip/osa/Thread.h"

namespace zarip::osa {

namespace {

constexpr int kSignal = SIGUSR1;

struct ErrorRow {
    int error;
    const char* text;
};

// Searched from the top; the last row stands for any other error.
constexpr ErrorRow kCreateRows[] = {
    {EFAULT, "Invalid timer event"},
    {EINVAL, "Invalid clock"},
    {EAGAIN, "Could not process request"},
    {0, "UNKNOWN ERROR"},
};
constexpr ErrorRow kActionRows[] = {
    {EFAULT, "Invalid action"}, {EINVAL, "Invalid signal"}, {0, "UNKNOWN ERROR"}};
constexpr ErrorRow kSetRows[] = {
    {EFAULT, "Invalid setting"}, {EINVAL, "Invalid timer ID"}, {0, "UNKNOWN ERROR"}};

template <std::size_t N>
void Check(int result, const ErrorRow (&rows)[N]) {
    if (result == 0) {
        return;
    }
    std::size_t row = 0;
    while (row + 1 < N && rows[row].error != errno) {
        ++row;
    }
    throw Exception("%s", rows[row].text);
}

/// The POSIX timer, which the copies of a `Timer` share.
class Alarm {
public:
    /// @param id  comes back with the signal.
    Alarm(int id, pid_t thread) {
        sigevent event{};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = kSignal;
        event.sigev_value.sival_int = id;
#ifdef sigev_notify_thread_id
        event.sigev_notify_thread_id = thread;
#else
        event._sigev_un._tid = thread;
#endif
        Check(::timer_create(CLOCK_REALTIME, &event, &_timer), kCreateRows);
    }
    Alarm(const Alarm&) = delete;
    Alarm& operator=(const Alarm&) = delete;
    ~Alarm() {
        Delete();
    }

    void Delete() {
        if (!_deleted.exchange(true)) {
            ::timer_delete(_timer);
        }
    }

    void Set(const itimerspec& setting) {
        if (_deleted) {
            throw Exception("Invalid timer ID");
        }
        Check(::timer_settime(_timer, TIMER_ABSTIME, &setting, nullptr), kSetRows);
    }

private:
    timer_t _timer{};
    std::atomic<bool> _deleted{false};
};

bool HasCome(const TimeStruct& time) {
    return time <= TimeStruct(true);
}

}  // namespace

/// The fields are guarded by the service's mutex.
struct Timer::PosixTimerContext {
    int id = 0;
    std::shared_ptr<Alarm> alarm;
    TimeStruct expiry;
    void* userData = nullptr;
    ITimerCallback* callback = nullptr;
    bool armed = false;
    bool running = false;
};

/// The thread "Timer" and the timers of the process; made with the first of them and never destroyed.
///
/// A signal carries the number of a timer, never an address, so one that comes late, or from a stranger,
/// finds nothing.
/// `_mutex` guards the table and the timers and is not held while a callback runs; `_idle` is given whenever
/// one has ended while somebody waited for that.
class TimerService final : public Runnable {
public:
    using Context = Timer::PosixTimerContext;

    static TimerService& Get() {
        static auto* const service = new TimerService;
        return *service;
    }

    void Add(const std::shared_ptr<Context>& context, ITimerCallback* callback) {
        const MutexAutoLock lock(&_mutex);
        context->id = _nextId++;
        context->callback = callback;
        context->alarm = std::make_shared<Alarm>(context->id, _threadId);
        _timers[context->id] = context;
    }

    void AddCopy(const std::shared_ptr<Context>& context, const Context& original) {
        const MutexAutoLock lock(&_mutex);
        *context = original;
        context->armed = false;
        context->running = false;
    }

    void Arm(Context& context, const TimeStruct& expiry, void* userData) {
        itimerspec setting{};
        setting.it_value.tv_sec = static_cast<time_t>(expiry.seconds);
        // All zero would disarm.
        setting.it_value.tv_nsec =
            expiry == TimeStruct() ? 1 : static_cast<long>(expiry.microseconds) * 1'000;
        const MutexAutoLock lock(&_mutex);
        context.alarm->Set(setting);
        // The signal of a copy finds the timer that the alarm was made for.
        Context& target = Target(context);
        target.expiry = context.expiry = expiry;
        target.userData = context.userData = userData;
        target.armed = true;
    }

    void Disarm(Context& context) {
        {
            const MutexAutoLock lock(&_mutex);
            context.alarm->Set(itimerspec{});
            Target(context).armed = false;
        }
        WaitForCallback(context);
    }

    /// What the timer was armed for last.
    Context Get(const Context& context) {
        const MutexAutoLock lock(&_mutex);
        return context;
    }

    void Remove(Context& context) {
        {
            const MutexAutoLock lock(&_mutex);
            context.alarm->Delete();
            Target(context).armed = false;
            const auto entry = _timers.find(context.id);
            if (entry != _timers.end() && entry->second.get() == &context) {
                _timers.erase(entry);
            }
        }
        WaitForCallback(context);
    }

    void Run() override {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, kSignal);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        _threadId = static_cast<pid_t>(::syscall(SYS_gettid));
        _ready.Release();
        for (;;) {
            siginfo_t info{};
            if (::sigwaitinfo(&signals, &info) == kSignal && info.si_code == SI_TIMER) {
                Fire(info.si_value.sival_int);
            }
        }
    }

    void Stop() override {}

private:
    TimerService() : _thread("Timer", this, 0, 0) {
        struct sigaction action {};
        // Ignored, a signal interrupts nobody; the thread that blocks it gets it all the same.
        action.sa_handler = SIG_IGN;
        sigemptyset(&action.sa_mask);
        Check(::sigaction(kSignal, &action, nullptr), kActionRows);
        _thread.Run();
        _ready.Lock();
    }

    Context& Target(Context& context) ZARIP_REQUIRES(_mutex) {
        const auto entry = _timers.find(context.id);
        return entry != _timers.end() ? *entry->second : context;
    }

    void Fire(int id) {
        std::shared_ptr<Context> context;
        TimeStruct expiry;
        void* userData = nullptr;
        {
            const MutexAutoLock lock(&_mutex);
            const auto entry = _timers.find(id);
            // A signal that was on its way when the timer was stopped or set to a later time is of no more
            // use.
            if (entry == _timers.end() || !entry->second->armed || !HasCome(entry->second->expiry)) {
                return;
            }
            context = entry->second;
            context->armed = false;
            context->running = true;
            expiry = context->expiry;
            userData = context->userData;
        }
        try {
            context->callback->OnTimer(expiry, userData);
        } catch (const std::exception& e) {
            _logger->Error("Exception in timer callback: %s", e.what());
        } catch (...) {
            _logger->Error("Exception in timer callback: %s", "unknown");
        }
        const MutexAutoLock lock(&_mutex);
        context->running = false;
        for (; _waiters > 0; --_waiters) {
            _idle.Release();
        }
    }

    void WaitForCallback(Context& context) {
        if (Thread::CurrentThread::ThreadPtr() == &_thread) {
            return;
        }
        for (;;) {
            {
                const MutexAutoLock lock(&_mutex);
                if (!Target(context).running && !context.running) {
                    return;
                }
                ++_waiters;
            }
            _idle.Lock();
        }
    }

    core::Logger* _logger = core::Logger::GetLogger("Timer");
    Mutex _mutex{"TimerService"};
    Semaphore _ready{"TimerService::ready", 1, 0};
    Semaphore _idle{"TimerService::idle", 0xFFFF, 0};
    int _waiters ZARIP_GUARDED_BY(_mutex) = 0;
    int _nextId ZARIP_GUARDED_BY(_mutex) = 1;
    std::map<int, std::shared_ptr<Context>> _timers ZARIP_GUARDED_BY(_mutex);
    std::atomic<pid_t> _threadId{0};
    Thread _thread;
};

Timer::Timer(ITimerCallback* callback) {
    if (callback == nullptr) {
        throw Exception("Illegal NULL callback");
    }
    _context = std::make_shared<PosixTimerContext>();
    TimerService::Get().Add(_context, callback);
}

Timer::Timer(const Timer& other) : _context(std::make_shared<PosixTimerContext>()) {
    TimerService::Get().AddCopy(_context, *other._context);
}

Timer& Timer::operator=(const Timer& other) {
    if (this != &other) {
        auto copy = std::make_shared<PosixTimerContext>();
        TimerService::Get().AddCopy(copy, *other._context);
        TimerService::Get().Remove(*_context);
        _context = std::move(copy);
    }
    return *this;
}

Timer::~Timer() {
    try {
        TimerService::Get().Remove(*_context);
    } catch (...) {
        // Waiting for the callback failed; there is nothing else to do.
    }
}

void Timer::Start(const TimeStruct& expiry, void* userData) {
    TimerService::Get().Arm(*_context, expiry, userData);
}

void Timer::Stop() {
    TimerService::Get().Disarm(*_context);
}

void Timer::Expire() {
    Stop();
    const PosixTimerContext armed = TimerService::Get().Get(*_context);
    armed.callback->OnTimer(armed.expiry, armed.userData);
}

}  // namespace zarip::osa
