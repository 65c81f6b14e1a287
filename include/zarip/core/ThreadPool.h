// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

#include <zarip/core/ITaskQueue.h>
#include <zarip/osa/Export.h>

namespace zarip::core {

/// A task queue and the thread that runs its tasks, "ThreadPool". *Thread-safe*.
///
/// Deliberate: the pool has one thread, although its name suggests several. Tasks run one at a time, in the
/// order of their due times and, if these are equal, in the order in which they were queued. Tasks that share
/// state need no lock among themselves.
///
/// If a task calls `pthread_exit`, the thread ends, and later tasks are queued but never run.
class ZARIP_EXPORT ThreadPool {
public:
    /// Starts the thread. The queue holds at most 500 tasks.
    ThreadPool();

    /// Starts the thread with another limit.
    /// @param maxCount  how many tasks may wait in the queue.
    explicit ThreadPool(int maxCount);
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    /// Runs every task that is already due, ends the thread and deletes the other tasks. If a task of this
    /// pool destroys the pool, the destructor does not wait; thread and queue end when that task returns.
    ~ThreadPool();

    /// Returns the task queue, *not owned*, which exists as long as the pool.
    ITaskQueue* GetTaskQueue();

private:
    class Impl;
    std::shared_ptr<Impl> _impl;
};

}  // namespace zarip::core
