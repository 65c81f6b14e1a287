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

/// What the threads of an HTTP server do.
class IHttpWork {
public:
    virtual ~IHttpWork() = default;

    /// Runs the loop over all connections until the lead is lost or the server has ended.
    virtual void Lead() = 0;

    /// Serves a request that had to wait for a thread. Throws nothing.
    virtual void Work(std::unique_ptr<ServedConnection> connection) noexcept = 0;

    /// A handler has ended on a thread that does not lead. Throws nothing.
    virtual void OnWorked() noexcept = 0;
};

/// Shares the threads of an HTTP server between its handlers, at most n at a time, and its loop, which always
/// has one of the n + 1 threads: the leader.
///
/// A request that finds fewer than n handlers running costs no change of threads: the leader itself runs its
/// handler. Meanwhile another thread, the watcher, looks after it every four milliseconds. If it finds the
/// same handler at two looks in a row it takes the lead over, and the leader becomes a worker. So a
/// handler delays the loop by at most eight milliseconds, however long it runs. Once one has taken long, the
/// watcher is woken for the next sixteen at once. A loop on a thread of its own would do without all this,
/// and would cost every request two changes of threads, which is more than serving it does.
///
/// `_turn` says who leads. It is even while the leader is in its loop and odd while it runs a handler. The
/// leader makes it odd before the handler. After it, leader and watcher compete to make it even again, and
/// the one that succeeds leads. The state of the loop is handed on with it.
///
/// `_mutex` guards the requests that wait and the roles of threads; it is never held while a handler runs.
class HttpThreads {
public:
    static constexpr unsigned int kMaxWorkers = 64;

    explicit HttpThreads(IHttpWork& work) : _work(work) {}

    /// Before `Run`. The caller makes one thread more and calls `Run` on each.
    void SetWorkers(unsigned int count) { _workers = count; }
    unsigned int GetWorkers() const { return _workers; }

    /// The body of each thread.
    void Run();

    // The following are the leader's.

    enum class Outcome {
        kBusy,      ///< n handlers run already; nothing was done
        kLeads,     ///< the handler has run, and this thread still leads
        kLostLead,  ///< the handler has run; the caller must not touch the state of the loop any more, and
                    ///< returns from `IHttpWork::Lead`
    };

    /// Runs a handler on the leader's own thread.
    /// @param handler  throws nothing.
    template <class Handler>
    Outcome Execute(Handler handler) {
        if (_running >= _workers) {
            return Outcome::kBusy;
        }
        const Turn turn = BeginWork();
        handler();
        return EndWork(turn) ? Outcome::kLeads : Outcome::kLostLead;
    }

    /// Has a request wait until one of the handlers that run ends; false, without taking it, if fewer than n
    /// run by now.
    bool Queue(std::unique_ptr<ServedConnection>& connection);

    std::size_t GetQueued() const;
    std::size_t GetQueuedBytes() const;
    /// Closes the request with the most bytes of those that wait.
    void DropLargest();
    void DropQueued();

    /// How many handlers run.
    unsigned int GetRunning() const { return _running; }

    /// Has all threads leave `Run`, no handler may be running.
    void End();

private:
    /// The turn in which nobody has led yet.
    static constexpr std::uint64_t kNobody = 1;

    struct Turn {
        std::uint64_t number;
        osa::MonotonicMs begin;  // 0 if it was not eager
    };

    Turn BeginWork();
    bool EndWork(Turn turn);
    bool TakeLead();
    bool Watch();
    void WakeWatcher();
    void WorkOff();

    IHttpWork& _work;
    unsigned int _workers = 1;

    std::atomic<std::uint64_t> _turn{kNobody};
    std::atomic<unsigned int> _running{0};
    std::atomic<bool> _ended{false};
    /// For how many handlers more the watcher is woken at once.
    std::atomic<unsigned int> _eager{0};
    std::atomic<bool> _watcherSleeps{false};
    std::atomic<bool> _isNudged{false};  // the watcher is to take the lead without a second look
    osa::Semaphore _watch{"HttpThreads::_watch", 8, 0};
    osa::Semaphore _idle{"HttpThreads::_idle", kMaxWorkers, 0};

    mutable osa::Mutex _mutex{"HttpThreads"};
    bool _isWatched ZARIP_GUARDED_BY(_mutex) = false;
    unsigned int _idleCount ZARIP_GUARDED_BY(_mutex) = 0;
    std::deque<std::unique_ptr<ServedConnection>> _queue ZARIP_GUARDED_BY(_mutex);
    std::size_t _queuedBytes ZARIP_GUARDED_BY(_mutex) = 0;
};

}  // namespace zarip::inet
