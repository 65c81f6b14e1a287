// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/core/Delegate.h>
#include <zarip/osa/Export.h>
#include <zarip/osa/TimeSpan.h>

namespace zarip::core {

/// Runs tasks later.
class ZARIP_EXPORT ITaskQueue {
public:
    virtual ~ITaskQueue() = default;

    /// Queues a task to run once `delay` has passed; *takes ownership*, also when this throws.
    virtual void DoQueueTask(const osa::TimeSpan& delay, IVoidDelegate0* task) = 0;

    /// Deletes the queued tasks that are bound to `target`. It does not wait for a task that runs already,
    /// which may still use `target` when this returns. Before a target is destroyed, end the threads that run
    /// tasks, or delete its tasks from a task of the same `ThreadPool`, which runs one task at a time.
    virtual void DoDequeueTasksByTarget(void* target);

    void QueueTask(const osa::TimeSpan& delay, IVoidDelegate0* task) { DoQueueTask(delay, task); }
    void QueueTask(IVoidDelegate0* task) { DoQueueTask(osa::TimeSpan(), task); }
    void DequeueTasksByTarget(void* target) { DoDequeueTasksByTarget(target); }
};

}  // namespace zarip::core
