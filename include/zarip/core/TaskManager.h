// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

#include <zarip/core/ITaskQueue.h>
#include <zarip/osa/Export.h>

namespace zarip::osa {
class ITimeSource;
}

namespace zarip::core {

/// A queue of tasks in the order of their due times. Tasks that are due at the same time keep the order in
/// which they were queued. They run on the threads that call `WaitAndExecuteTask` or `ExecuteQueuedTasks`.
///
/// *Thread-safe*. Any number of threads may queue and run tasks. No lock is held while a task runs, so it may
/// queue and dequeue other tasks. An exception from a task is logged as "Exception running task: ...".
class ZARIP_EXPORT TaskManager : public ITaskQueue {
public:
    /// Uses the monotonic clock and holds at most 500 tasks.
    ///
    /// A task without a delay is due at once. The exact time determines its order among tasks with a delay,
    /// with one exception: a task with a negative delay may run before tasks without a delay that were queued
    /// up to two ticks of the kernel (8 to 20 ms) before the due time of that task.
    TaskManager();

    /// Makes the same with another limit.
    /// @param maxCount  how many tasks may wait in the queue.
    explicit TaskManager(int maxCount);

    /// Uses another clock.
    /// @param timeSource  the clock. *Takes ownership* if `takeOwnership` is true; otherwise the clock must
    ///     outlive the manager. If the clock is set while a thread waits, the thread notices this within a
    ///     second.
    TaskManager(osa::ITimeSource* timeSource, bool takeOwnership);
    TaskManager(const TaskManager&) = delete;
    TaskManager& operator=(const TaskManager&) = delete;

    /// Deletes the tasks that are still queued.
    ~TaskManager() override;

    /// Queues a task. If the queue is full, it deletes the task and throws `osa::Exception` "maxCount was
    /// reached". If the due time cannot be represented, it deletes the task and throws "Invalid parameter".
    void DoQueueTask(const osa::TimeSpan& delay, IVoidDelegate0* task) override;

    void DoDequeueTasksByTarget(void* target) override;

    /// Waits until a task is due and runs it. Returns false if no task was run.
    ///
    /// Deliberate: if a wait ends because the earliest task has become due, the function returns false
    /// without running the task. So a caller in a loop can check its own state before it calls the function
    /// again.
    /// @param timeoutMs  in milliseconds; a negative value waits without limit, 0 does not wait.
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
