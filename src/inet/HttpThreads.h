// SPDX-License-Identifier: MIT

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>

#include "inet/ServedConnection.h"
#include "zarip/osa/Mutex.h"
#include "zarip/osa/Semaphore.h"

namespace zarip::inet {

/// The work that the threads of an HTTP server do.
class IHttpWork {
public:
    virtual ~IHttpWork() = default;

    /// Runs the loop over all connections until this thread has lost the lead or the server has ended.
    virtual void RunLoop() = 0;

    /// Serves a request that has waited for a thread. Throws nothing.
    virtual void ServeQueued(std::unique_ptr<ServedConnection> connection) noexcept = 0;

    /// Is called when a handler has ended on a thread that does not lead. Throws nothing.
    virtual void OnServed() noexcept = 0;
};

/// Shares n + 1 threads between the loop of an HTTP server and its handlers, of which at most n run at once.
/// The thread that runs the loop is the leader.
///
/// If fewer than n handlers run, the leader itself runs the handler of a request, which costs no change of
/// threads. Meanwhile another thread, the watcher, checks the leader every four milliseconds. If it finds the
/// same handler running at two checks in a row, it takes over the lead, and the former leader becomes a
/// worker. A handler therefore delays the loop by at most eight milliseconds, however long it runs. After a
/// slow handler, the watcher is woken at once for the next sixteen. A loop on a separate thread would be
/// simpler, but each request would cost two changes of threads, which is more than serving it costs.
///
/// `_turn` decides which thread leads. It is even while the leader is in its loop and odd while it runs a
/// handler. The leader makes it odd before the handler. Afterwards leader and watcher compete to make it even
/// again, and the thread that succeeds leads. The state of the loop passes to that thread.
///
/// `_mutex` guards the waiting requests and the roles of the threads; it is never held while a handler runs.
class HttpThreads {
public:
    static constexpr unsigned int kMaxWorkers = 64;

    explicit HttpThreads(IHttpWork& work) : _work(work) {}

    /// Sets n; to be called before `Run`. The caller starts n + 1 threads and calls `Run` once on each.
    void SetWorkers(unsigned int count) { _workers = count; }
    unsigned int GetWorkers() const { return _workers; }

    /// The body of each thread; returns after `EndThreads`.
    void Run();

    // Only the leader calls the following functions.

    enum class Outcome {
        kBusy,      ///< n handlers are running; nothing was done
        kLeads,     ///< the handler has run, and this thread still leads
        kLostLead,  ///< the handler has run; the caller must no longer touch the state of the loop and
                    ///< returns from `IHttpWork::RunLoop`
    };

    /// Runs a handler on the leader's own thread.
    /// @param handler  throws nothing.
    template <class Handler>
    Outcome ExecuteHandler(Handler handler) {
        if (_running >= _workers) {
            return Outcome::kBusy;
        }
        const Turn turn = BeginWork();
        handler();
        return EndWork(turn) ? Outcome::kLeads : Outcome::kLostLead;
    }

    /// Queues a request until one of the running handlers has ended. Returns false, and does not take the
    /// request, if fewer than n handlers are running now.
    bool QueueConnection(std::unique_ptr<ServedConnection>& connection);

    std::size_t GetQueued() const;
    std::size_t GetQueuedBytes() const;
    /// Closes the waiting request with the most bytes.
    void DropLargest();
    void DropQueued();

    /// Returns the number of running handlers.
    unsigned int GetRunning() const { return _running; }

    /// Makes all threads leave `Run`. No handler may be running.
    void EndThreads();

private:
    /// The turn before any thread has led.
    static constexpr std::uint64_t kNobody = 1;

    struct Turn {
        std::uint64_t number;
        osa::MonotonicMs begin;  // 0 unless the watcher was woken at once
    };

    Turn BeginWork();
    bool EndWork(Turn turn);
    bool TakeLead();
    bool WatchLeader();
    void WakeWatcher();
    void ServeQueue();

    IHttpWork& _work;
    unsigned int _workers = 1;

    std::atomic<std::uint64_t> _turn{kNobody};
    std::atomic<unsigned int> _running{0};
    std::atomic<bool> _ended{false};
    /// The number of handlers for which the watcher will still be woken at once.
    std::atomic<unsigned int> _eager{0};
    std::atomic<bool> _watcherSleeps{false};
    std::atomic<bool> _isNudged{false};  // the watcher takes the lead without a second check
    osa::Semaphore _watch{"HttpThreads::_watch", 8, 0};
    osa::Semaphore _idle{"HttpThreads::_idle", kMaxWorkers, 0};

    mutable osa::Mutex _mutex{"HttpThreads"};
    bool _isWatched ZARIP_GUARDED_BY(_mutex) = false;
    unsigned int _idleCount ZARIP_GUARDED_BY(_mutex) = 0;
    std::deque<std::unique_ptr<ServedConnection>> _queue ZARIP_GUARDED_BY(_mutex);
    std::size_t _queuedBytes ZARIP_GUARDED_BY(_mutex) = 0;
};

}  // namespace zarip::inet
