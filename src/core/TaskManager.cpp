#include "zarip/core/TaskManager.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <utility>
#include <vector>

#include "zarip/core/Logger.h"
#include "zarip/osa/Exception.h"
#include "zarip/osa/ITimeSource.h"
#include "zarip/osa/LockException.h"
#include "zarip/osa/Mutex.h"
#include "zarip/osa/MutexAutoLock.h"
#include "zarip/osa/Semaphore.h"
#include "zarip/osa/TimeStruct.h"

namespace zarip::core {

namespace {

constexpr int kMaxCount = 500;
constexpr unsigned int kNoLimit = 0xFFFFFFFFU;

/// A clock that jumps changes what a wait is for; so nobody waits longer without looking at it.
constexpr long long kLookAgainMs = 1'000;

/// Microseconds of the time source; `kNever` lies behind all that it can tell.
using Microseconds = long long;
constexpr Microseconds kNever = 0x7FFFFFFFFFFFFFFFLL;

Microseconds ToMicroseconds(const osa::TimeStruct& time) {
    return static_cast<Microseconds>(time.seconds) * 1'000'000 + time.microseconds;
}

struct QueueItem {
    Microseconds due;
    std::unique_ptr<IVoidDelegate0> task;

    /// Reversed: the top of the heap is the task that is due soonest.
    friend bool operator<(const QueueItem& a, const QueueItem& b) { return b.due < a.due; }
};

/// Rounded up: a wait must not end before its time.
long long ToMilliseconds(Microseconds duration) {
    return duration > 0 ? (duration + 999) / 1'000 : duration / 1'000;
}

}  // namespace

void ITaskQueue::DoDequeueTasksByTarget(void* /*target*/) {}

/// `_mutex` guards the queue and who waits. A task that is queued while somebody waits releases `_wakeUp`,
/// but not more often than there are those who wait: a burst of tasks wakes a worker once.
class TaskManager::TaskManagerImpl {
public:
    /// @param isMonotonic  whether the time source never goes back.
    TaskManagerImpl(osa::ITimeSource* timeSource, bool ownsTimeSource, bool isMonotonic, int maxCount)
        : _timeSource(timeSource),
          _ownedTimeSource(ownsTimeSource ? timeSource : nullptr),
          _isMonotonic(isMonotonic),
          _wakeUp("TaskManager", static_cast<unsigned short>(std::clamp(maxCount, 1, 0xFFFF)), 0),
          _maxCount(maxCount) {}

    void Queue(const osa::TimeSpan& delay, std::unique_ptr<IVoidDelegate0> task, bool evenIfFull);
    void Dequeue(void* target);
    bool WaitAndExecute(int timeoutMs);

private:
    osa::TimeStruct Now() const {
        osa::TimeStruct now;
        _timeSource->GetTime(now);
        return now;
    }
    bool IsDue() ZARIP_REQUIRES(_mutex);
    std::unique_ptr<IVoidDelegate0> TakeTop() ZARIP_REQUIRES(_mutex);
    bool WaitForTask(unsigned int milliseconds);
    void Run(IVoidDelegate0& task) const;

    Logger* _logger = Logger::GetLogger("TaskManager");
    osa::ITimeSource* _timeSource;
    std::unique_ptr<osa::ITimeSource> _ownedTimeSource;
    bool _isMonotonic;
    osa::Mutex _mutex{"TaskManager"};
    osa::Semaphore _wakeUp;
    int _maxCount;
    std::vector<QueueItem> _queue ZARIP_GUARDED_BY(_mutex);
    Microseconds _lastNow ZARIP_GUARDED_BY(_mutex) = 0;
    int _waiting ZARIP_GUARDED_BY(_mutex) = 0;
    int _woken ZARIP_GUARDED_BY(_mutex) = 0;  ///< units of `_wakeUp` that nobody has taken yet
};

void TaskManager::TaskManagerImpl::Queue(const osa::TimeSpan& delay, std::unique_ptr<IVoidDelegate0> task,
                                         bool evenIfFull) {
    osa::TimeStruct due = Now();
    due += delay.GetTotalMicroseconds();
    bool wakes = false;
    {
        const osa::MutexAutoLock lock(&_mutex);
        if (!evenIfFull && static_cast<long long>(_queue.size()) >= _maxCount) {
            throw osa::Exception("maxCount was reached");
        }
        _queue.push_back({ToMicroseconds(due), std::move(task)});
        std::push_heap(_queue.begin(), _queue.end());
        wakes = _woken < _waiting;
        _woken += wakes ? 1 : 0;
    }
    if (wakes) {
        try {
            _wakeUp.Release();
        } catch (const osa::LockException&) {
            // Full: then nobody has to wait for a unit.
        }
    }
}

void TaskManager::TaskManagerImpl::Dequeue(void* target) {
    std::vector<QueueItem> dropped;  // deleted without the lock: a task's end may use the queue
    const osa::MutexAutoLock lock(&_mutex);
    const auto first = std::partition(_queue.begin(), _queue.end(), [target](const QueueItem& item) {
        return !item.task->Matches(target);
    });
    std::move(first, _queue.end(), std::back_inserter(dropped));
    _queue.erase(first, _queue.end());
    std::make_heap(_queue.begin(), _queue.end());
}

std::unique_ptr<IVoidDelegate0> TaskManager::TaskManagerImpl::TakeTop() {
    std::pop_heap(_queue.begin(), _queue.end());
    std::unique_ptr<IVoidDelegate0> task = std::move(_queue.back().task);
    _queue.pop_back();
    return task;
}

void TaskManager::TaskManagerImpl::Run(IVoidDelegate0& task) const {
    try {
        task.Call();
    } catch (const std::exception& e) {
        _logger->Error("Exception running task: %s", e.what());
    } catch (...) {
        _logger->Error("Exception running task: %s", "unknown");
    }
}

/// Whether the top of the queue is due, by a time read before if that says so already.
bool TaskManager::TaskManagerImpl::IsDue() {
    if (_queue.empty()) {
        return false;
    }
    if (!_isMonotonic || _queue.front().due > _lastNow) {
        _lastNow = ToMicroseconds(Now());
    }
    return _queue.front().due <= _lastNow;
}

/// Waits for a task to be queued, by the one who has counted itself into `_waiting`.
bool TaskManager::TaskManagerImpl::WaitForTask(unsigned int milliseconds) {
    const bool woken = _wakeUp.TryLock(milliseconds);
    const osa::MutexAutoLock lock(&_mutex);
    --_waiting;
    if (woken) {
        --_woken;
    }
    return woken;
}

bool TaskManager::TaskManagerImpl::WaitAndExecute(int timeoutMs) {
    Microseconds target = kNever;
    if (timeoutMs > 0) {
        target = ToMicroseconds(Now()) + static_cast<Microseconds>(timeoutMs) * 1'000;
    }
    for (;;) {
        std::unique_ptr<IVoidDelegate0> task;
        long long wait = 0;
        {
            const osa::MutexAutoLock lock(&_mutex);
            if (IsDue()) {
                task = TakeTop();
            } else if (timeoutMs == 0) {
                return false;
            } else {
                if (!_queue.empty()) {
                    target = std::min(target, _queue.front().due);
                }
                wait = target == kNever ? kNever : ToMilliseconds(target - ToMicroseconds(Now()));
                if (wait < 0) {
                    return false;
                }
                ++_waiting;
            }
        }
        if (task) {
            Run(*task);
            return true;
        }
        const bool isLast = wait <= kLookAgainMs;
        if (!WaitForTask(wait == kNever ? kNoLimit
                                        : static_cast<unsigned int>(std::min(wait, kLookAgainMs))) &&
            isLast) {
            return false;
        }
    }
}

TaskManager::TaskManager() : TaskManager(kMaxCount) {}

TaskManager::TaskManager(int maxCount)
    : _impl(std::make_unique<TaskManagerImpl>(new osa::MonotonicTimeSource, true, true, maxCount)) {}

TaskManager::TaskManager(osa::ITimeSource* timeSource, bool takeOwnership)
    : _impl(std::make_unique<TaskManagerImpl>(timeSource, takeOwnership, false, kMaxCount)) {}

TaskManager::~TaskManager() = default;

void TaskManager::DoQueueTask(const osa::TimeSpan& delay, IVoidDelegate0* task) {
    std::unique_ptr<IVoidDelegate0> owned(task);
    if (!owned) {
        throw osa::Exception("Invalid parameter");
    }
    _impl->Queue(delay, std::move(owned), false);
}

void TaskManager::QueueEvenIfFull(IVoidDelegate0* task) {
    _impl->Queue(osa::TimeSpan(), std::unique_ptr<IVoidDelegate0>(task), true);
}

void TaskManager::DoDequeueTasksByTarget(void* target) {
    _impl->Dequeue(target);
}

bool TaskManager::WaitAndExecuteTask(int timeoutMs) {
    return _impl->WaitAndExecute(timeoutMs);
}

void TaskManager::ExecuteQueuedTasks() {
    while (_impl->WaitAndExecute(0)) {
    }
}

}  // namespace zarip::core
