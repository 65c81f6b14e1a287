#include "zarip/core/TaskManager.h"

#include <cxxabi.h>
#include <sched.h>

#include <algorithm>
#include <cstddef>
#include <deque>
#include <exception>
#include <utility>
#include <vector>

#include "zarip/core/Logger.h"
#include "zarip/osa/Exception.h"
#include "zarip/osa/ITimeSource.h"
#include "zarip/osa/Mutex.h"
#include "zarip/osa/MutexAutoLock.h"
#include "zarip/osa/Semaphore.h"
#include "zarip/osa/TimeStruct.h"

namespace zarip::core {

namespace {

constexpr int kMaxCount = 500;
constexpr unsigned int kNoLimit = 0xFFFFFFFFU;

/// A clock that jumps changes how long a wait has to be, so no wait is longer without a look at the clock.
constexpr long long kLookAgainMs = 1'000;

/// Microseconds of the time source. `kLatest` is the last that a `TimeStruct` can express; `kNever` is later
/// than every time of a task.
using Microseconds = long long;
constexpr Microseconds kLatest = 4'294'967'295'999'999;
constexpr Microseconds kNever = 0x7FFFFFFFFFFFFFFFLL;

Microseconds ToMicroseconds(const osa::TimeStruct& time) {
    return static_cast<Microseconds>(time.seconds) * 1'000'000 + time.microseconds;
}

/// The time after `delay`; throws for one that a `TimeStruct` cannot express.
Microseconds After(Microseconds now, Microseconds delay) {
    if (delay > kLatest - now || delay < -now) {
        throw osa::Exception("Invalid parameter");
    }
    return now + delay;
}

/// The tasks in the order of their due times, and among those due at the same time in the order in which they
/// were queued. *One thread at a time.*
///
/// Tasks without a delay are queued in that order anyway, so they wait in a list; all others wait in a heap.
/// Whichever of the two first items comes first in the order is the next task. One heap for everything would
/// be shorter, but it takes more than twice as long when a million tasks without a delay wait.
class DueQueue {
public:
    DueQueue() = default;
    DueQueue(const DueQueue&) = delete;
    DueQueue& operator=(const DueQueue&) = delete;
    ~DueQueue() {
        for (const Item& item : _list) {
            delete item.task;
        }
        for (const Item& item : _heap) {
            delete item.task;
        }
    }

    bool IsEmpty() const { return _list.empty() && _heap.empty(); }
    std::size_t GetSize() const { return _list.size() + _heap.size(); }

    /// The due time of the next task; the queue must not be empty.
    Microseconds GetNextDue() const { return IsNextInList() ? _list.front().due : _heap.front().due; }

    void Push(Microseconds due, bool isDelayed, std::unique_ptr<IVoidDelegate0> task) {
        const Item item{due, _pushed++, task.get()};
        // Threads that queue at the same time, or a clock that was set back, may break the order.
        if (isDelayed || (!_list.empty() && IsBefore(item, _list.back()))) {
            _heap.push_back(item);
            std::push_heap(_heap.begin(), _heap.end(), IsAfter);
        } else {
            _list.push_back(item);
        }
        static_cast<void>(task.release());
    }

    std::unique_ptr<IVoidDelegate0> TakeNext() {
        if (IsNextInList()) {
            std::unique_ptr<IVoidDelegate0> task(_list.front().task);
            _list.pop_front();
            return task;
        }
        std::unique_ptr<IVoidDelegate0> task(_heap.front().task);
        PopHeap();
        return task;
    }

    /// Takes out the tasks that are bound to `target`; nothing changes if this throws.
    std::vector<std::unique_ptr<IVoidDelegate0>> Remove(const void* target) {
        std::deque<Item> list;
        std::vector<Item> heap;
        std::vector<IVoidDelegate0*> bound;
        for (const Item& item : _list) {
            item.task->Matches(target) ? bound.push_back(item.task) : list.push_back(item);
        }
        for (const Item& item : _heap) {
            item.task->Matches(target) ? bound.push_back(item.task) : heap.push_back(item);
        }
        std::vector<std::unique_ptr<IVoidDelegate0>> removed(bound.size());
        _list.swap(list);
        _heap.swap(heap);
        std::make_heap(_heap.begin(), _heap.end(), IsAfter);
        for (std::size_t i = 0; i < bound.size(); ++i) {
            removed[i].reset(bound[i]);
        }
        return removed;
    }

private:
    /// The queue owns the task. A plain pointer, because the heap moves items all the time.
    struct Item {
        Microseconds due;
        unsigned long long number;
        IVoidDelegate0* task;
    };

    // Without a branch: which of two items comes first is a guess that the processor would often lose.
    static bool IsBefore(const Item& a, const Item& b) {
        const bool isEarlier = a.due < b.due;
        const bool isSameTime = a.due == b.due;
        const bool isOlder = a.number < b.number;
        return isEarlier | (isSameTime & isOlder);
    }
    static bool IsAfter(const Item& a, const Item& b) { return IsBefore(b, a); }

    bool IsNextInList() const {
        return !_list.empty() && (_heap.empty() || IsBefore(_list.front(), _heap.front()));
    }

    /// Like std::pop_heap, without a branch in the choice between two children: the gap at the top sinks to
    /// the bottom, and the last item rises from there.
    void PopHeap() {
        const Item last = _heap.back();
        _heap.pop_back();
        const std::size_t size = _heap.size();
        if (size == 0) {
            return;
        }
        std::size_t gap = 0;
        for (std::size_t child = 1; child < size; child = 2 * gap + 1) {
            child += static_cast<std::size_t>(child + 1 < size && IsBefore(_heap[child + 1], _heap[child]));
            _heap[gap] = _heap[child];
            gap = child;
        }
        _heap[gap] = last;
        std::push_heap(_heap.begin(), _heap.begin() + static_cast<std::ptrdiff_t>(gap) + 1, IsAfter);
    }

    std::deque<Item> _list;
    std::vector<Item> _heap;
    unsigned long long _pushed = 0;
};

/// Rounded up: a wait must not end before its time.
long long ToMilliseconds(Microseconds duration) {
    return duration > 0 ? (duration + 999) / 1'000 : duration / 1'000;
}

}  // namespace

void ITaskQueue::DoDequeueTasksByTarget(void* /*target*/) {}

/// `_mutex` guards the queue and the numbers of waiting threads. A task that is queued while a thread waits
/// releases `_wakeUp`, but not more often than there are threads that wait: a burst of tasks wakes a worker
/// once.
class ZARIP_HIDDEN TaskManager::TaskManagerImpl {
public:
    /// @param isMonotonic  whether the time source never goes back.
    TaskManagerImpl(osa::ITimeSource* timeSource, bool ownsTimeSource, bool isMonotonic, int maxCount)
        : _timeSource(timeSource),
          _ownedTimeSource(ownsTimeSource ? timeSource : nullptr),
          _isMonotonic(isMonotonic),
          _maxWoken(std::clamp(maxCount, 1, 0xFFFF)),
          _wakeUp("TaskManager", static_cast<unsigned short>(_maxWoken), 0),
          _maxCount(maxCount) {}

    void Queue(const osa::TimeSpan& delay, std::unique_ptr<IVoidDelegate0> task, bool evenIfFull);
    void Dequeue(void* target);
    bool WaitAndExecute(int timeoutMs);

private:
    Microseconds Now() const {
        osa::TimeStruct now;
        _timeSource->GetTime(now);
        return ToMicroseconds(now);
    }
    bool IsDue() ZARIP_REQUIRES(_mutex);
    void Run(IVoidDelegate0& task) const;

    Logger* _logger = Logger::GetLogger("TaskManager");
    osa::ITimeSource* _timeSource;
    std::unique_ptr<osa::ITimeSource> _ownedTimeSource;
    bool _isMonotonic;
    osa::Mutex _mutex{"TaskManager"};
    int _maxWoken;
    osa::Semaphore _wakeUp;
    int _maxCount;
    DueQueue _queue ZARIP_GUARDED_BY(_mutex);
    Microseconds _lastNow ZARIP_GUARDED_BY(_mutex) = 0;  ///< the latest time read by any thread
    int _waiting ZARIP_GUARDED_BY(_mutex) = 0;
    int _woken ZARIP_GUARDED_BY(_mutex) = 0;  ///< units of `_wakeUp` that no thread has taken yet
};

void TaskManager::TaskManagerImpl::Queue(const osa::TimeSpan& delay, std::unique_ptr<IVoidDelegate0> task,
                                         bool evenIfFull) {
    const Microseconds now = Now();
    const Microseconds wait = delay.GetTotalMicroseconds();
    const Microseconds due = After(now, wait);
    bool wakes = false;
    {
        const osa::MutexAutoLock lock(&_mutex);
        if (!evenIfFull && static_cast<long long>(_queue.GetSize()) >= _maxCount) {
            throw osa::Exception("maxCount was reached");
        }
        _queue.Push(due, wait != 0, std::move(task));
        _lastNow = std::max(_lastNow, now);
        // More units than tasks that may wait would find nothing to do, and no room in `_wakeUp`.
        wakes = _woken < std::min(_waiting, _maxWoken);
        _woken += wakes ? 1 : 0;
    }
    if (wakes) {
        _wakeUp.Release();
    }
}

void TaskManager::TaskManagerImpl::Dequeue(void* target) {
    // Deleted without the lock: the end of a task may use the queue.
    std::vector<std::unique_ptr<IVoidDelegate0>> removed;
    const osa::MutexAutoLock lock(&_mutex);
    removed = _queue.Remove(target);
}

void TaskManager::TaskManagerImpl::Run(IVoidDelegate0& task) const {
    try {
        task.Call();
    } catch (const abi::__forced_unwind&) {
        throw;  // pthread_exit ends the thread
    } catch (const std::exception& e) {
        _logger->Error("Exception running task: %s", e.what());
    } catch (...) {
        _logger->Error("Exception running task: %s", "unknown");
    }
}

/// Whether the top of the queue is due, by a time read before if that says so already.
bool TaskManager::TaskManagerImpl::IsDue() {
    if (_queue.IsEmpty()) {
        return false;
    }
    if (!_isMonotonic || _queue.GetNextDue() > _lastNow) {
        _lastNow = Now();
    }
    return _queue.GetNextDue() <= _lastNow;
}

bool TaskManager::TaskManagerImpl::WaitAndExecute(int timeoutMs) {
    Microseconds target = kNever;
    if (timeoutMs > 0) {
        target = Now() + static_cast<Microseconds>(timeoutMs) * 1'000;
    }
    bool hasYielded = false;
    bool hasWaited = false;
    bool woken = false;
    bool isLast = false;
    for (;;) {
        std::unique_ptr<IVoidDelegate0> task;
        bool yields = false;
        long long wait = 0;
        {
            const osa::MutexAutoLock lock(&_mutex);
            if (hasWaited) {
                hasWaited = false;
                --_waiting;
                _woken -= woken ? 1 : 0;
                if (!woken && (isLast || Now() >= target)) {
                    return false;
                }
            }
            if (IsDue()) {
                task = _queue.TakeNext();
            } else if (timeoutMs == 0) {
                return false;
            } else if (_queue.IsEmpty() && !hasYielded) {
                yields = true;
            } else {
                if (!_queue.IsEmpty()) {
                    target = std::min(target, _queue.GetNextDue());
                }
                wait = target == kNever ? kNever : ToMilliseconds(target - Now());
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
        if (yields) {
            // The thread that queued the last task may be about to queue more. If it does so now, it need
            // not wake this one.
            ::sched_yield();
            hasYielded = true;
            continue;
        }
        isLast = wait <= kLookAgainMs;
        woken = _wakeUp.TryLock(wait == kNever ? kNoLimit
                                               : static_cast<unsigned int>(std::min(wait, kLookAgainMs)));
        hasWaited = true;
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
