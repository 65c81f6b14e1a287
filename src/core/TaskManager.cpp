#include "zarip/core/TaskManager.h"

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

/// A clock that jumps changes what a wait is for; so nobody waits longer without looking at it.
constexpr long long kLookAgainMs = 1'000;

/// Microseconds of the time source; `kNever` lies behind all that it can tell.
using Microseconds = long long;
constexpr Microseconds kNever = 0x7FFFFFFFFFFFFFFFLL;

Microseconds ToMicroseconds(const osa::TimeStruct& time) {
    return static_cast<Microseconds>(time.seconds) * 1'000'000 + time.microseconds;
}

/// The tasks and their due times. *One thread at a time.*
///
/// Tasks mostly come in the order of their due times; those stand in a list, and only the others go through
/// the heap.
class DueQueue {
public:
    DueQueue() = default;
    DueQueue(const DueQueue&) = delete;
    DueQueue& operator=(const DueQueue&) = delete;
    ~DueQueue() {
        Delete(_inOrder);
        Delete(_heap);
    }

    bool IsEmpty() const { return _inOrder.empty() && _heap.empty(); }
    std::size_t GetSize() const { return _inOrder.size() + _heap.size(); }

    /// The due time of the task that comes first; the queue must not be empty.
    Microseconds GetNextDue() const {
        if (_inOrder.empty()) {
            return _heap.front().due;
        }
        return _heap.empty() ? _inOrder.front().due : std::min(_inOrder.front().due, _heap.front().due);
    }

    void Push(Microseconds due, std::unique_ptr<IVoidDelegate0> task) {
        const Item item{due, task.get()};
        if (_inOrder.empty() || _inOrder.back().due <= due) {
            _inOrder.push_back(item);
        } else {
            _heap.push_back(item);
            std::push_heap(_heap.begin(), _heap.end());
        }
        static_cast<void>(task.release());
    }

    std::unique_ptr<IVoidDelegate0> TakeNext() {
        if (!_inOrder.empty() && (_heap.empty() || _inOrder.front().due <= _heap.front().due)) {
            std::unique_ptr<IVoidDelegate0> task(_inOrder.front().task);
            _inOrder.pop_front();
            return task;
        }
        std::unique_ptr<IVoidDelegate0> task(_heap.front().task);
        PopHeap();
        return task;
    }

    /// Takes out what is bound to `target`.
    std::vector<std::unique_ptr<IVoidDelegate0>> Remove(const void* target) {
        std::vector<std::unique_ptr<IVoidDelegate0>> removed;
        removed.reserve(GetSize());
        const auto takes = [target, &removed](const Item& item) {
            if (!item.task->Matches(target)) {
                return false;
            }
            removed.emplace_back(item.task);
            return true;
        };
        _inOrder.erase(std::remove_if(_inOrder.begin(), _inOrder.end(), takes), _inOrder.end());
        _heap.erase(std::remove_if(_heap.begin(), _heap.end(), takes), _heap.end());
        std::make_heap(_heap.begin(), _heap.end());
        return removed;
    }

private:
    /// A plain pointer, *owned* by the queue: the heap moves items all the time.
    struct Item {
        Microseconds due;
        IVoidDelegate0* task;

        /// Reversed: the top of the heap is the task that is due soonest.
        friend bool operator<(const Item& a, const Item& b) { return b.due < a.due; }
    };

    template <class Items>
    static void Delete(const Items& items) {
        for (const Item& item : items) {
            delete item.task;
        }
    }

    /// Like std::pop_heap, but the choice between two children is no jump that the CPU has to guess: the gap
    /// at the top sinks to the bottom, and the last item rises from there.
    void PopHeap() {
        const Item last = _heap.back();
        _heap.pop_back();
        const std::size_t size = _heap.size();
        if (size == 0) {
            return;
        }
        std::size_t gap = 0;
        for (std::size_t child = 1; child < size; child = 2 * gap + 1) {
            child += static_cast<std::size_t>(child + 1 < size && _heap[child + 1].due < _heap[child].due);
            _heap[gap] = _heap[child];
            gap = child;
        }
        _heap[gap] = last;
        std::push_heap(_heap.begin(), _heap.begin() + static_cast<std::ptrdiff_t>(gap) + 1);
    }

    std::deque<Item> _inOrder;
    std::vector<Item> _heap;
};

/// Rounded up: a wait must not end before its time.
long long ToMilliseconds(Microseconds duration) {
    return duration > 0 ? (duration + 999) / 1'000 : duration / 1'000;
}

}  // namespace

void ITaskQueue::DoDequeueTasksByTarget(void* /*target*/) {}

/// `_mutex` guards the queue and who waits. A task that is queued while somebody waits releases `_wakeUp`,
/// but not more often than there are those who wait: a burst of tasks wakes a worker once.
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
    osa::TimeStruct Now() const {
        osa::TimeStruct now;
        _timeSource->GetTime(now);
        return now;
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
        if (!evenIfFull && static_cast<long long>(_queue.GetSize()) >= _maxCount) {
            throw osa::Exception("maxCount was reached");
        }
        _queue.Push(ToMicroseconds(due), std::move(task));
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
        _lastNow = ToMicroseconds(Now());
    }
    return _queue.GetNextDue() <= _lastNow;
}

bool TaskManager::TaskManagerImpl::WaitAndExecute(int timeoutMs) {
    Microseconds target = kNever;
    if (timeoutMs > 0) {
        target = ToMicroseconds(Now()) + static_cast<Microseconds>(timeoutMs) * 1'000;
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
                if (!woken && (isLast || ToMicroseconds(Now()) >= target)) {
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
        if (yields) {
            // Whoever queued the last task may be about to queue more, and need not wake us for them.
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
