#pragma once

#include <memory>

#include <zarip/core/ITaskQueue.h>
#include <zarip/osa/Export.h>

namespace zarip::core {

/// A worker thread, "ThreadPool", and its task queue. *Thread-safe*.
///
/// Deliberate: one thread, whatever the name says. Tasks run one at a time and in the order of their due
/// times, so those that share state need no lock among themselves.
class ZARIP_EXPORT ThreadPool {
public:
    /// Starts the worker.
    ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    /// Runs the tasks that are due by now, ends the worker and deletes the others. Called by a task of its
    /// own it does not wait: the worker ends, and the queue with it, when the task returns.
    ~ThreadPool();

    /// *Not owned*; ends with the pool.
    ITaskQueue* GetTaskQueue();

private:
    class ThreadPoolImpl;
    std::shared_ptr<ThreadPoolImpl> _impl;
};

}  // namespace zarip::core
