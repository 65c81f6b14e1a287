// SPDX-License-Identifier: MIT

#pragma once

#include <pthread.h>

#include <condition_variable>
#include <mutex>
#include <vector>

#include "msgbus/DBusHandles.h"
#include "osa/UniqueFd.h"
#include "osa/Wait.h"

namespace zarip::msgbus {

/// The calls of a connection that wait for their replies. *Thread-safe*; no other lock is taken while its
/// mutex is held.
///
/// The calling threads share the reading of the connection as leader and followers. The leader waits for the
/// descriptor and reads for all; the followers sleep until their replies have arrived. When the leader's own
/// reply has arrived, it passes the lead to the call that has waited longest. So a single call costs no
/// change of threads, and any number of calls can wait at once.
///
/// Each call goes through `Add`, `Begin`, any number of `Wait`, and `Remove`.
class PendingCalls {
public:
    /// A call, on the stack of the thread that waits for it.
    struct Call {
        explicit Call(dbus_uint32_t serialNumber) : serial(serialNumber), thread(::pthread_self()) {}
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;

        const dbus_uint32_t serial;
        const pthread_t thread;
        MessageRef reply;  ///< valid once `isDone`; null if the call failed
        bool isDone = false;
        bool isWaiting = false;  ///< whether it may become the leader
        bool leads = false;
        std::condition_variable changed;
    };

    /// Throws "pipe failed" if the system has no more descriptors.
    PendingCalls();

    /// Adds a call. To be called before it is sent, so that its reply finds it.
    void Add(Call& call);

    /// Notes that the call waits from now on. It becomes the leader if no other call leads. Returns whether
    /// it leads.
    bool Begin(Call& call);

    /// Removes a call. If it was the leader, another waiting call becomes the leader. Returns true if it was
    /// the leader and no other call waits.
    bool Remove(Call& call);

    /// Waits until the call is done, becomes the leader, or times out.
    void Wait(Call& call, osa::MonotonicMs until);

    enum class Role { kDone, kLeader, kFollower };
    Role GetRole(const Call& call) const;

    /// Passes a reply to its call; returns false if no call waits for it.
    bool Complete(MessageRef& reply);

    /// Ends every call without a reply, because the connection is lost.
    void FailAll();

    /// Returns a descriptor that is readable when another thread has completed the leader's call.
    int GetWakeFd() const { return _wake.Get(); }

    /// Resets that descriptor; only the leader calls this.
    void ClearWake();

private:
    void FinishCall(Call& call);

    osa::UniqueFd _wake;
    mutable std::mutex _mutex;
    std::vector<Call*> _calls;  ///< in the order of `Add`
    bool _hasLeader = false;
};

}  // namespace zarip::msgbus
