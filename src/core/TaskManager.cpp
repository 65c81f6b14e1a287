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
constexpr unsigned int kLastSecond = 0xFFFFFFFFU;
constexpr unsigned int kLastMicrosecond = 999'999;
constexpr unsigned int kNoLimit = 0xFFFFFFFFU;

/// A clock that jumps changes what a wait is for; so nobody waits longer without looking at it.
constexpr long long kLookAgainMs = 1'000;

struct QueueItem {
    osa::TimeStruct due;
    std::unique_ptr<IVoidDelegate0> task;

    /// Reversed: the top of the heap is the task that is due soonest.
    friend bool operator<(const QueueItem& a, const QueueItem& b) { return b.due < a.due; }
};

/// From `from` to `to` in milliseconds, rounded up: a wait must not end before its time.
long long MillisecondsUntil(const osa::TimeStruct& to, const osa::TimeStruct& from) {
    const long long seconds = static_cast<long long>(to.seconds) - static_cast<long long>(from.seconds);
    const long long microseconds = seconds * 1'000'000 + static_cast<long long>(to.microseconds) -
                                   static_cast<long long>(from.microseconds);
    return microseconds > 0 ? (microseconds + 999) / 1'000 : microseconds / 1'000;
}

}  // namespace

void ITaskQueue::DoDequeueTasksByTarget(void* /*target*/) {}

/// `_mutex` guards the queue. `_wakeUp` holds a unit for each queued task, which goes with the task; whoever
/// waits for it looks at the queue again.
class TaskManager::TaskManagerImpl {
public:
    TaskManagerImpl(osa::ITimeSource* timeSource, bool ownsTimeSource, int maxCount)
        : _timeSource(timeSource),
          _ownedTimeSource(ownsTimeSource ? timeSource : nullptr),
          _wakeUp("TaskManager", static_cast<unsigned short>(maxCount), 0),
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
    std::unique_ptr<IVoidDelegate0> TakeTop() ZARIP_REQUIRES(_mutex);
    void Run(IVoidDelegate0& task) const;

    Logger* _logger = Logger::GetLogger("TaskManager");
    osa::ITimeSource* _timeSource;
    std::unique_ptr<osa::ITimeSource> _ownedTimeSource;
    osa::Mutex _mutex{"TaskManager"};
    osa::Semaphore _wakeUp;
    int _maxCount;
    std::vector<QueueItem> _queue ZARIP_GUARDED_BY(_mutex);
};

void TaskManager::TaskManagerImpl::Queue(const osa::TimeSpan& delay, std::unique_ptr<IVoidDelegate0> task,
                                         bool evenIfFull) {
    osa::TimeStruct due = Now();
    due += delay.GetTotalMicroseconds();
    const osa::MutexAutoLock lock(&_mutex);
    if (!evenIfFull && static_cast<long long>(_queue.size()) >= _maxCount) {
        throw osa::Exception("maxCount was reached");
    }
    _queue.push_back({due, std::move(task)});
    std::push_heap(_queue.begin(), _queue.end());
    try {
        _wakeUp.Release();
    } catch (const osa::LockException&) {
        // Full: whoever waits has been woken as often as there are tasks.
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
    for (std::size_t i = 0; i < dropped.size(); ++i) {
        _wakeUp.TryLock(0);
    }
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

bool TaskManager::TaskManagerImpl::WaitAndExecute(int timeoutMs) {
    const osa::TimeStruct never(kLastSecond, kLastMicrosecond);
    osa::TimeStruct target = never;
    if (timeoutMs >= 0) {
        target = Now();
        target += static_cast<long long>(timeoutMs) * 1'000;
    }
    for (bool hasUnit = false;;) {
        std::unique_ptr<IVoidDelegate0> task;
        const osa::TimeStruct now = Now();
        {
            const osa::MutexAutoLock lock(&_mutex);
            if (_queue.empty() && timeoutMs == 0) {
                return false;
            }
            if (!_queue.empty() && _queue.front().due <= now) {
                task = TakeTop();
                if (!hasUnit) {
                    // The task's unit goes with it, so that a full queue never meets a full semaphore.
                    _wakeUp.TryLock(0);
                }
            } else if (!_queue.empty()) {
                target = std::min(target, _queue.front().due);
            }
        }
        if (task) {
            Run(*task);
            return true;
        }
        if (target == never) {
            hasUnit = _wakeUp.TryLock(kNoLimit);
            continue;
        }
        const long long wait = MillisecondsUntil(target, now);
        if (wait < 0) {
            return false;
        }
        hasUnit = _wakeUp.TryLock(static_cast<unsigned int>(std::min(wait, kLookAgainMs)));
        if (!hasUnit && wait <= kLookAgainMs) {
            return false;
        }
    }
}

TaskManager::TaskManager() : TaskManager(kMaxCount) {}

TaskManager::TaskManager(int maxCount)
    : _impl(std::make_unique<TaskManagerImpl>(new osa::MonotonicTimeSource, true, maxCount)) {}

TaskManager::TaskManager(osa::ITimeSource* timeSource, bool takeOwnership)
    : _impl(std::make_unique<TaskManagerImpl>(timeSource, takeOwnership, kMaxCount)) {}

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
