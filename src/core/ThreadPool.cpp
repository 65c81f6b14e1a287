// SPDX-License-Identifier: MIT

#include "zarip/core/ThreadPool.h"

#include <atomic>

#include "zarip/core/Logger.h"
#include "zarip/core/TaskManager.h"
#include "zarip/osa/Runnable.h"
#include "zarip/osa/Thread.h"

namespace zarip::core {

namespace {

constexpr unsigned int kStackSize = 32'768;

}  // namespace

/// The queue and its worker. The worker shares it while it runs, so that a task may destroy the pool.
///
/// It is started once and ended once, by the pool.
class ZARIP_HIDDEN ThreadPool::Impl final : public osa::Runnable {
public:
    Impl() = default;
    explicit Impl(int maxCount) : _tasks(maxCount) {}

    void Start(std::shared_ptr<Impl> self) {
        _self = std::move(self);
        _logger->Debug("Spawning thread");
        try {
            _thread.Run();
        } catch (...) {
            _self.reset();  // the object would keep itself alive
            throw;
        }
    }

    void Run() override {
        const std::shared_ptr<Impl> self = std::move(_self);
        while (!_stop) {
            _tasks.WaitAndExecuteTask(-1);
        }
    }

    /// Queues the task that ends the worker, after the tasks that are due by now. A full queue takes it, too.
    void Stop() override { _tasks.QueueEvenIfFull(MakeDelegate(this, &Impl::SetStopFlag)); }

    /// Waits until the worker has run what is due. If a task is the caller, the worker ends after it.
    void End() {
        try {
            if (osa::Thread::CurrentThread::ThreadPtr() == &_thread) {
                SetStopFlag();
                return;
            }
            Stop();
            _thread.Join();
        } catch (...) {
            _logger->Error("Error shutting down ThreadPool");
        }
    }

    ITaskQueue* GetTaskQueue() { return &_tasks; }

private:
    void SetStopFlag() { _stop = true; }

    Logger* _logger = Logger::GetLogger("ThreadPool");
    TaskManager _tasks;
    osa::Thread _thread{"ThreadPool", this, kStackSize, 0};
    std::atomic<bool> _stop{false};
    std::shared_ptr<Impl> _self;
};

ThreadPool::ThreadPool() : _impl(std::make_shared<Impl>()) {
    _impl->Start(_impl);
}

ThreadPool::ThreadPool(int maxCount) : _impl(std::make_shared<Impl>(maxCount)) {
    _impl->Start(_impl);
}

ThreadPool::~ThreadPool() {
    _impl->End();
}

ITaskQueue* ThreadPool::GetTaskQueue() {
    return _impl->GetTaskQueue();
}

}  // namespace zarip::core
