// SPDX-License-Identifier: MIT

#include "zarip/core/TaskManager.h"

#include <cxxabi.h>
#include <sched.h>
#include <time.h>

#include <algorithm>
#include <cstddef>
#include <deque>
#include <utility>
#include <vector>

#include "osa/DescribeCaught.h"
#include "zarip/core/Logger.h"
#include "zarip/osa/Exception.h"
#include "zarip/osa/ITimeSource.h"
#include "zarip/osa/Mutex.h"
#include "zarip/osa/MutexAutoLock.h"
#include "zarip/osa/Semaphore.h"
#include "zarip/osa/TimeStruct.h"
#include "zarip/osa/Timeout.h"

namespace zarip::core {

namespace {

constexpr int kMaxCount = 500;

/// A clock may jump and so change how long a wait has to be. The clock is read again after this time.
constexpr long long kLookAgainMs = 1'000;

/// A time of the time source in microseconds. `kLatest` is the last one that a `TimeStruct` can express;
/// `kNever` is later than every due time.
using Microseconds = long long;
constexpr Microseconds kLatest = 4'294'967'295'999'999;
constexpr Microseconds kNever = 0x7FFFFFFFFFFFFFFFLL;

Microseconds ToMicroseconds(const osa::TimeStruct& time) {
    return static_cast<Microseconds>(time.seconds) * 1'000'000 + time.microseconds;
}

/// The monotonic clock as it was at the system's last tick, at a quarter of the cost of the exact time. It is
/// late by less than `GetTicks`, unless the processor that counts the ticks of a virtual machine is
/// suspended.
Microseconds LastTick() {
    timespec tick{};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &tick);
    return static_cast<Microseconds>(tick.tv_sec) * 1'000'000 + tick.tv_nsec / 1'000;
}

/// Two ticks, because one may be late.
Microseconds GetTicks() {
    static const Microseconds ticks = [] {
        timespec resolution{};
        ::clock_getres(CLOCK_MONOTONIC_COARSE, &resolution);
        return static_cast<Microseconds>(resolution.tv_nsec / 1'000) * 2;
    }();
    return ticks;
}

/// If a task with a delay is due within this time, the exact time is needed.
constexpr Microseconds kSoon = 100'000;

/// The time after `delay`. Throws if a `TimeStruct` cannot express it.
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
/// The next task is the earlier of the first items of the two.
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

    void PushDelayed(Microseconds due, std::unique_ptr<IVoidDelegate0> task) {
        const Item item{due, _pushed++, task.get()};
        _heap.push_back(item);
        static_cast<void>(task.release());
        Rise(_heap.size() - 1, item);
    }

    /// For a task without a delay. Its due time must not be before those of the others in the list.
    void PushInOrder(Microseconds due, std::unique_ptr<IVoidDelegate0> task) {
        _list.push_back({due, _pushed++, task.get()});
        static_cast<void>(task.release());
    }

    /// The latest due time in the list, 0 if it is empty.
    Microseconds GetLastInList() const { return _list.empty() ? 0 : _list.back().due; }

    /// Whether a task with a delay is due by `time`.
    bool HasDelayed(Microseconds time) const { return !_heap.empty() && _heap.front().due <= time; }

    /// Sets the due times in the list to the latest that they may be: `margin` later, but not after `now`.
    void Postpone(Microseconds margin, Microseconds now) {
        for (auto item = _list.rbegin(); item != _list.rend() && item->number >= _firstEarly; ++item) {
            item->due = std::min(item->due + margin, now);
        }
        _firstEarly = _pushed;
    }

    std::unique_ptr<IVoidDelegate0> TakeNext() {
        if (IsNextInList()) {
            std::unique_ptr<IVoidDelegate0> task(_list.front().task);
            _list.pop_front();
            if (!_list.empty()) {
                __builtin_prefetch(_list.front().task);  // in a long queue it has left the cache by now
            }
            return task;
        }
        std::unique_ptr<IVoidDelegate0> task(_heap.front().task);
        PopHeap();
        return task;
    }

    /// Removes the tasks that are bound to `target`. If it throws, nothing has changed.
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
        std::sort(_heap.begin(), _heap.end(), IsBefore);
        for (std::size_t i = 0; i < bound.size(); ++i) {
            removed[i].reset(bound[i]);
        }
        return removed;
    }

private:
    /// The queue owns the task. The pointer is a plain one, because the heap moves items often.
    struct Item {
        Microseconds due;
        unsigned long long number;
        IVoidDelegate0* task;
    };

    static bool IsBefore(const Item& a, const Item& b) {
        return __builtin_expect(a.due == b.due, 0) ? a.number < b.number : a.due < b.due;
    }

    bool IsNextInList() const {
        return !_list.empty() && (_heap.empty() || IsBefore(_list.front(), _heap.front()));
    }

    /// Puts an item into the gap, or as far above it as it belongs.
    void Rise(std::size_t gap, const Item& item) {
        while (gap > 0) {
            const std::size_t parent = (gap - 1) / kChildren;
            if (!IsBefore(item, _heap[parent])) {
                break;
            }
            _heap[gap] = _heap[parent];
            gap = parent;
        }
        _heap[gap] = item;
    }

    std::size_t GetEarlier(std::size_t a, std::size_t b) const {
        return IsBefore(_heap[b], _heap[a]) ? b : a;
    }

    /// Removes the first item: the gap at the top sinks to the bottom, and the last item rises from there.
    void PopHeap() {
        const Item last = _heap.back();
        _heap.pop_back();
        const std::size_t size = _heap.size();
        std::size_t gap = 0;
        std::size_t child = 1;
        for (; child + kChildren <= size; child = kChildren * gap + 1) {
            const std::size_t earliest =
                GetEarlier(GetEarlier(child, child + 1), GetEarlier(child + 2, child + 3));
            _heap[gap] = _heap[earliest];
            gap = earliest;
        }
        if (child < size) {
            std::size_t earliest = child;
            while (++child < size) {
                earliest = GetEarlier(earliest, child);
            }
            _heap[gap] = _heap[earliest];
            gap = earliest;
        }
        if (size > 0) {
            Rise(gap, last);
        }
    }

    /// Four children keep the heap flat, so that fewer items are read that are not in the processor's cache.
    static constexpr std::size_t kChildren = 4;

    std::deque<Item> _list;
    std::vector<Item> _heap;
    unsigned long long _pushed = 0;
    unsigned long long _firstEarly = 0;  ///< items from this number on were not postponed yet
};

/// Rounds up, because a wait must not end before its time.
long long ToMilliseconds(Microseconds duration) {
    return duration > 0 ? (duration + 999) / 1'000 : duration / 1'000;
}

}  // namespace

void ITaskQueue::DoDequeueTasksByTarget(void* /*target*/) {}

/// The queue and the threads that run its tasks. *Thread-safe*. `_mutex` guards the queue and the numbers of
/// waiting and woken threads; it is not held while a task runs or a thread sleeps. A task that is queued
/// while a thread waits releases `_wakeUp`, but not more often than threads wait, so a burst of tasks wakes a
/// worker once.
class ZARIP_HIDDEN TaskManager::Impl {
public:
    /// @param isMonotonic  whether the time source never goes back.
    Impl(osa::ITimeSource* timeSource, std::unique_ptr<osa::ITimeSource> owned, bool isMonotonic,
         int maxCount)
        : _timeSource(timeSource),
          _ownedTimeSource(std::move(owned)),
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

    /// One call of `WaitAndExecute`.
    struct Call {
        explicit Call(int milliseconds) : timeoutMs(milliseconds) {}

        const int timeoutMs;
        Microseconds target = kNever;  ///< when the wait ends
        bool hasYielded = false;
        bool hasSlept = false;
        bool wasWoken = false;     ///< the sleep ended because `_wakeUp` was released
        bool isLastSleep = false;  ///< the sleep lasts until `target`
        unsigned int sleepMs = 0;
        std::unique_ptr<IVoidDelegate0> task;
    };
    enum class Step { kRunTask, kGiveUp, kYield, kSleep };
    Step GetNextStep(Call& call);

    void Push(Microseconds due, Microseconds delay, std::unique_ptr<IVoidDelegate0> task)
        ZARIP_REQUIRES(_mutex);
    void PushUndelayed(Microseconds lastTick, std::unique_ptr<IVoidDelegate0> task) ZARIP_REQUIRES(_mutex);
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

void TaskManager::Impl::Queue(const osa::TimeSpan& delay, std::unique_ptr<IVoidDelegate0> task,
                              bool evenIfFull) {
    const Microseconds wait = delay.GetTotalMicroseconds();
    // The task that ends a pool runs after all tasks that are due, so it needs the exact time.
    const bool isUndelayed = wait == 0 && _isMonotonic && !evenIfFull;
    const Microseconds due = isUndelayed ? LastTick() : After(Now(), wait);
    bool wakes = false;
    {
        const osa::MutexAutoLock lock(&_mutex);
        if (!evenIfFull && static_cast<long long>(_queue.GetSize()) >= _maxCount) {
            throw osa::Exception("maxCount was reached");
        }
        if (isUndelayed) {
            PushUndelayed(due, std::move(task));
        } else {
            Push(due, wait, std::move(task));
        }
        // More units than waiting threads would wake threads for nothing, and `_wakeUp` has no room for them.
        wakes = _woken < std::min(_waiting, _maxWoken);
        _woken += wakes ? 1 : 0;
    }
    if (wakes) {
        _wakeUp.Release();
    }
}

void TaskManager::Impl::Push(Microseconds due, Microseconds delay, std::unique_ptr<IVoidDelegate0> task) {
    if (delay == 0 && due >= _queue.GetLastInList()) {
        _queue.PushInOrder(due, std::move(task));
        return;
    }
    if (delay < 0 && _isMonotonic) {
        _queue.Postpone(GetTicks(), due - delay);
    }
    _queue.PushDelayed(due, std::move(task));
}

/// The due time is the time of the last tick. If a task with a delay is due soon, only the exact time decides
/// which of the two comes first.
void TaskManager::Impl::PushUndelayed(Microseconds lastTick, std::unique_ptr<IVoidDelegate0> task) {
    const Microseconds now = _queue.HasDelayed(lastTick + kSoon) ? Now() : lastTick;
    const Microseconds due = std::max(now, _queue.GetLastInList());
    _lastNow = std::max(_lastNow, due);
    _queue.PushInOrder(due, std::move(task));
}

void TaskManager::Impl::Dequeue(void* target) {
    // The tasks are deleted without the lock, because the destructor of a task may use the queue.
    std::vector<std::unique_ptr<IVoidDelegate0>> removed;
    const osa::MutexAutoLock lock(&_mutex);
    removed = _queue.Remove(target);
}

void TaskManager::Impl::Run(IVoidDelegate0& task) const {
    try {
        task.Call();
    } catch (const abi::__forced_unwind&) {
        throw;  // pthread_exit ends the thread
    } catch (...) {
        _logger->Error("Exception running task: %s", osa::DescribeCaught());
    }
}

/// Whether the next task is due. The clock is read only if the last time that was read does not show it.
bool TaskManager::Impl::IsDue() {
    if (_queue.IsEmpty()) {
        return false;
    }
    if (!_isMonotonic || _queue.GetNextDue() > _lastNow) {
        _lastNow = Now();
    }
    return _queue.GetNextDue() <= _lastNow;
}

TaskManager::Impl::Step TaskManager::Impl::GetNextStep(Call& call) {
    const osa::MutexAutoLock lock(&_mutex);
    if (std::exchange(call.hasSlept, false)) {
        --_waiting;
        _woken -= call.wasWoken ? 1 : 0;
        if (!call.wasWoken && (call.isLastSleep || Now() >= call.target)) {
            return Step::kGiveUp;
        }
    }
    if (IsDue()) {
        call.task = _queue.TakeNext();
        return Step::kRunTask;
    }
    if (call.timeoutMs == 0) {
        return Step::kGiveUp;
    }
    if (_queue.IsEmpty() && !std::exchange(call.hasYielded, true)) {
        return Step::kYield;
    }
    if (!_queue.IsEmpty()) {
        call.target = std::min(call.target, _queue.GetNextDue());
    }
    call.isLastSleep = false;
    call.sleepMs = osa::kWaitForEver;
    if (call.target != kNever) {
        const long long wait = ToMilliseconds(call.target - Now());
        if (wait < 0) {
            return Step::kGiveUp;
        }
        call.isLastSleep = wait <= kLookAgainMs;
        call.sleepMs = static_cast<unsigned int>(std::min(wait, kLookAgainMs));
    }
    call.hasSlept = true;
    ++_waiting;
    return Step::kSleep;
}

bool TaskManager::Impl::WaitAndExecute(int timeoutMs) {
    Call call(timeoutMs);
    if (timeoutMs > 0) {
        call.target = Now() + static_cast<Microseconds>(timeoutMs) * 1'000;
    }
    for (;;) {
        switch (GetNextStep(call)) {
            case Step::kRunTask:
                Run(*call.task);
                return true;
            case Step::kGiveUp:
                return false;
            case Step::kYield:
                // The thread that queued the last task may be about to queue more. If it does so now, it need
                // not wake this one.
                ::sched_yield();
                break;
            case Step::kSleep:
                call.wasWoken = _wakeUp.TryLock(call.sleepMs);
                break;
        }
    }
}

TaskManager::TaskManager() : TaskManager(kMaxCount) {}

TaskManager::TaskManager(int maxCount) {
    auto clock = std::make_unique<osa::MonotonicTimeSource>();
    osa::ITimeSource* const timeSource = clock.get();
    _impl = std::make_unique<Impl>(timeSource, std::move(clock), true, maxCount);
}

TaskManager::TaskManager(osa::ITimeSource* timeSource, bool takeOwnership) {
    std::unique_ptr<osa::ITimeSource> owned(takeOwnership ? timeSource : nullptr);
    _impl = std::make_unique<Impl>(timeSource, std::move(owned), false, kMaxCount);
}

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
