// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

#include <zarip/core/ITaskQueue.h>
#include <zarip/osa/Export.h>

namespace zarip::core {

/// A worker thread, "ThreadPool", and its task queue. *Thread-safe*.
///
/// Deliberate: the pool has one thread, although its name suggests several. Tasks run one at a time, in the
/// order of their due times and, if these are equal, in the order in which they were queued. Tasks that share
/// state need no lock among themselves.
///
/// A task that calls `pthread_exit` ends the worker: later tasks are queued and never run.
class ZARIP_EXPORT ThreadPool {
public:
    /// Starts the worker. The queue holds at most 500 tasks.
    ThreadPool();

    /// @param maxCount  the most tasks that may wait in the queue.
    explicit ThreadPool(int maxCount);
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    /// Runs every task that is due by now, ends the worker and deletes the other tasks. If a task of this
    /// pool calls it, it does not wait: worker and queue end when that task returns.
    ~ThreadPool();

    /// *Not owned*; it ends with the pool.
    ITaskQueue* GetTaskQueue();

private:
    class Impl;
    std::shared_ptr<Impl> _impl;
};

}  // namespace zarip::core
