// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/core/Delegate.h>
#include <zarip/osa/Export.h>
#include <zarip/osa/TimeSpan.h>

namespace zarip::core {

/// A queue of tasks, which run on another thread or later.
class ZARIP_EXPORT ITaskQueue {
public:
    virtual ~ITaskQueue() = default;

    /// Queues a task, which runs when `delay` has passed. *Takes ownership*, even if this throws.
    virtual void DoQueueTask(const osa::TimeSpan& delay, IVoidDelegate0* task) = 0;

    /// Deletes the queued tasks that are bound to `target`. It does not wait for a task that is running,
    /// which may still use `target` when this returns. Before you destroy a target, end the threads that run
    /// tasks. With a `ThreadPool`, which runs one task at a time, you can instead call this function in a
    /// task of the pool.
    virtual void DoDequeueTasksByTarget(void* target);

    void QueueTask(const osa::TimeSpan& delay, IVoidDelegate0* task) { DoQueueTask(delay, task); }
    void QueueTask(IVoidDelegate0* task) { DoQueueTask(osa::TimeSpan(), task); }
    void DequeueTasksByTarget(void* target) { DoDequeueTasksByTarget(target); }
};

}  // namespace zarip::core
