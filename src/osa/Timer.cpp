// SPDX-License-Identifier: MIT

#include "zarip/osa/Timer.h"

#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <utility>
#include <vector>

#include "osa/DescribeCaught.h"
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

// Searched from the top; the last row is for any other error.
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

/// The POSIX timer, which the copies of a `Timer` share; guarded by the service's mutex.
class Alarm {
public:
    /// @param itsId  the signal carries it.
    Alarm(int itsId, pid_t thread, ITimerCallback* itsCallback) : id(itsId), callback(itsCallback) {
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
        if (!_deleted) {
            ::timer_delete(_timer);
        }
        _deleted = true;
        armed = false;
    }

    void Arm(const TimeStruct& time) {
        itimerspec setting{};
        setting.it_value.tv_sec = static_cast<time_t>(time.seconds);
        // A setting of zero would disarm the timer.
        setting.it_value.tv_nsec = time == TimeStruct() ? 1 : static_cast<long>(time.microseconds) * 1'000;
        SetTimer(setting);
        expiry = time;
        armed = true;
    }

    void Disarm() {
        SetTimer(itimerspec{});
        armed = false;
    }

    const int id;
    ITimerCallback* const callback;
    TimeStruct expiry;
    void* userData = nullptr;
    bool armed = false;

private:
    void SetTimer(const itimerspec& setting) {
        if (_deleted) {
            throw Exception("Invalid timer ID");
        }
        Check(::timer_settime(_timer, TIMER_ABSTIME, &setting, nullptr), kSetRows);
    }

    timer_t _timer{};
    bool _deleted = false;
};

bool HasCome(const TimeStruct& time) {
    return time <= TimeStruct(true);
}

}  // namespace

/// The last start of this timer, and what it shares with its copies.
struct Timer::PosixTimerContext {
    std::shared_ptr<Alarm> alarm;
    TimeStruct expiry;
    void* userData = nullptr;
};

/// The thread "Timer" and the timers of the process. It is made with the first timer and never destroyed.
///
/// A signal carries the number of an alarm and not an address, so a late signal, or one from another process,
/// does no harm. `_mutex` guards the table and the timers. It is not held while a callback runs.
class TimerService final : public Runnable {
public:
    using Context = Timer::PosixTimerContext;

    static TimerService& Get() {
        static auto* const service = new TimerService;
        return *service;
    }

    void Add(Context& context, ITimerCallback* callback) {
        const MutexAutoLock lock(&_mutex);
        int id = 0;
        do {
            id = static_cast<int>(_nextId++);
        } while (_alarms.count(id) != 0);
        context.alarm = std::make_shared<Alarm>(id, _threadId, callback);
        _alarms[id] = context.alarm;
    }

    Context Copy(const Context& context) {
        const MutexAutoLock lock(&_mutex);
        return context;
    }

    void Arm(Context& context, const TimeStruct& expiry, void* userData) {
        const MutexAutoLock lock(&_mutex);
        context.alarm->Arm(expiry);
        context.alarm->userData = userData;
        context.expiry = expiry;
        context.userData = userData;
    }

    enum class Ending { kDisarm, kDelete };

    /// Waits until the callback does not run, unless the caller is the callback.
    void End(Alarm& alarm, Ending ending) {
        std::unique_ptr<Semaphore> ended;
        {
            const MutexAutoLock lock(&_mutex);
            if (ending == Ending::kDisarm) {
                alarm.Disarm();
            } else {
                alarm.Delete();
                _alarms.erase(alarm.id);
            }
            if (_running != &alarm || Thread::CurrentThread::ThreadPtr() == &_thread) {
                return;
            }
            ended = std::make_unique<Semaphore>("TimerService::ended", 1, 0);
            _waiting.push_back(ended.get());
        }
        ended->Lock();
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
        // An ignored signal interrupts no system call. The thread that blocks it and waits for it still
        // receives it.
        action.sa_handler = SIG_IGN;
        sigemptyset(&action.sa_mask);
        Check(::sigaction(kSignal, &action, nullptr), kActionRows);
        _thread.Run();
        _ready.Lock();
    }

    void Fire(int id) {
        std::shared_ptr<Alarm> alarm;
        TimeStruct expiry;
        void* userData = nullptr;
        {
            const MutexAutoLock lock(&_mutex);
            const auto entry = _alarms.find(id);
            // The signal may have been on its way when the timer was stopped.
            if (entry == _alarms.end() || !entry->second->armed) {
                return;
            }
            alarm = entry->second;
            expiry = alarm->expiry;
            userData = alarm->userData;
            if (!HasCome(expiry)) {
                // It was set to a later time meanwhile, or the clock was set back: then the system's timer,
                // which fires once, has to be set again.
                alarm->Arm(expiry);
                return;
            }
            alarm->armed = false;
            _running = alarm.get();
        }
        try {
            alarm->callback->OnTimer(expiry, userData);
        } catch (...) {
            _logger->Error("Exception in timer callback: %s", DescribeCaught());
        }
        const MutexAutoLock lock(&_mutex);
        _running = nullptr;
        if (!_waiting.empty()) {
            // The callback may have started its timer again, but another thread is stopping it.
            alarm->armed = false;
        }
        for (Semaphore* const ended : _waiting) {
            ended->Release();
        }
        _waiting.clear();
    }

    core::Logger* _logger = core::Logger::GetLogger("Timer");
    Mutex _mutex{"TimerService"};
    Semaphore _ready{"TimerService::ready", 1, 0};
    unsigned int _nextId ZARIP_GUARDED_BY(_mutex) = 1;
    std::map<int, std::shared_ptr<Alarm>> _alarms ZARIP_GUARDED_BY(_mutex);
    /// The alarm whose callback runs, and the threads that wait for its end.
    const Alarm* _running ZARIP_GUARDED_BY(_mutex) = nullptr;
    std::vector<Semaphore*> _waiting ZARIP_GUARDED_BY(_mutex);
    std::atomic<pid_t> _threadId{0};
    Thread _thread;
};

Timer::Timer(ITimerCallback* callback) {
    if (callback == nullptr) {
        throw Exception("Illegal NULL callback");
    }
    _context = std::make_unique<PosixTimerContext>();
    TimerService::Get().Add(*_context, callback);
}

Timer::Timer(const Timer& other)
    : _context(std::make_unique<PosixTimerContext>(TimerService::Get().Copy(*other._context))) {}

// NOLINTNEXTLINE(cert-oop54-cpp): a copy of itself has its own alarm, which stays.
Timer& Timer::operator=(const Timer& other) {
    auto copy = std::make_unique<PosixTimerContext>(TimerService::Get().Copy(*other._context));
    if (copy->alarm != _context->alarm) {
        TimerService::Get().End(*_context->alarm, TimerService::Ending::kDelete);
    }
    _context = std::move(copy);
    return *this;
}

Timer::~Timer() {
    try {
        TimerService::Get().End(*_context->alarm, TimerService::Ending::kDelete);
    } catch (...) {
        // Waiting for the callback failed; there is nothing else to do.
    }
}

void Timer::Start(const TimeStruct& expiry, void* userData) {
    TimerService::Get().Arm(*_context, expiry, userData);
}

void Timer::Stop() {
    TimerService::Get().End(*_context->alarm, TimerService::Ending::kDisarm);
}

void Timer::Expire() {
    Stop();
    const PosixTimerContext started = TimerService::Get().Copy(*_context);
    started.alarm->callback->OnTimer(started.expiry, started.userData);
}

}  // namespace zarip::osa
