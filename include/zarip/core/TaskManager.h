// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

#include <zarip/core/ITaskQueue.h>
#include <zarip/osa/Export.h>

namespace zarip::osa {
class ITimeSource;
}

namespace zarip::core {

/// A queue of tasks in the order of their due times; tasks due at the same time keep the order in which they
/// were queued. They run on the threads that call `WaitAndExecuteTask` or `ExecuteQueuedTasks`.
///
/// *Thread-safe*: any number of threads may queue and run. No lock is held while a task runs, so it may queue
/// and dequeue others. An exception from a task is logged as "Exception running task: ...".
class ZARIP_EXPORT TaskManager : public ITaskQueue {
public:
    /// Uses the monotonic clock and holds at most 500 tasks.
    ///
    /// A task without a delay is due at once. The exact time decides its order among tasks with a delay, with
    /// one exception: a task with a negative delay may run before tasks without a delay that were queued up
    /// to two ticks of the system (8 to 20 ms) before its due time.
    TaskManager();

    /// The same with another limit.
    /// @param maxCount  the most tasks that may wait.
    explicit TaskManager(int maxCount);

    /// @param timeSource  the clock; *takes ownership* if `takeOwnership`, otherwise it must outlive the
    ///     manager. While a thread waits, a clock that is set is noticed within a second.
    TaskManager(osa::ITimeSource* timeSource, bool takeOwnership);
    TaskManager(const TaskManager&) = delete;
    TaskManager& operator=(const TaskManager&) = delete;

    /// Deletes the tasks that are still queued.
    ~TaskManager() override;

    /// Throws `osa::Exception` "maxCount was reached" if the queue is full and "Invalid parameter" for a due
    /// time that cannot be expressed; the task is deleted then.
    void DoQueueTask(const osa::TimeSpan& delay, IVoidDelegate0* task) override;

    void DoDequeueTasksByTarget(void* target) override;

    /// Waits until a task is due and runs it. False if no task was run.
    ///
    /// Deliberate: a wait that ends because the earliest task has become due returns false without running
    /// it, so a caller in a loop can check its own state in between and then calls again.
    /// @param timeoutMs  milliseconds; negative waits without limit, 0 does not wait.
    bool WaitAndExecuteTask(int timeoutMs);

    /// Runs every task that is due, without waiting.
    void ExecuteQueuedTasks();

private:
    friend class ThreadPool;
    class Impl;

    void QueueEvenIfFull(IVoidDelegate0* task);

    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::core
