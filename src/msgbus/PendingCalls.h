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

/// The calls of a connection that wait for their replies. *Thread-safe*; its mutex is a leaf.
///
/// The calling threads share the reading of the connection as leader and followers. One of them, the leader,
/// waits for the descriptor and reads for all; the others sleep until their reply is there. A leader whose
/// own reply has come hands the lead to the call that has waited longest. So a call costs no change of
/// threads while it is the only one, and any number of calls wait without disturbing one another.
class PendingCalls {
public:
    /// A call, on the stack of the thread that waits for it.
    struct Call {
        explicit Call(dbus_uint32_t serialNumber) : serial(serialNumber), thread(::pthread_self()) {}
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;

        const dbus_uint32_t serial;
        const pthread_t thread;
        MessageRef reply;  ///< null if it failed; valid once `isDone`
        bool isDone = false;
        bool isWaiting = false;  ///< may lead
        bool leads = false;
        std::condition_variable changed;
    };

    /// Throws "pipe failed" when the system gives no descriptor.
    PendingCalls();

    /// Enters a call, so that its reply finds it.
    void Add(Call& call);

    /// The call begins to wait. It becomes the leader if no other call leads; true if it leads.
    bool Begin(Call& call);

    /// Removes a call. If it was the leader another one leads; true if no other is there to lead.
    bool Remove(Call& call);

    /// Waits until the call is done, leads, or its time has come.
    void Wait(Call& call, osa::MonotonicMs until);

    enum class Role { kDone, kLeader, kFollower };
    Role GetRole(const Call& call) const;

    /// Hands a reply to its call; false if no call waits for it.
    bool Complete(MessageRef& reply);

    /// The connection is lost: every call ends without a reply.
    void FailAll();

    /// Readable when another thread has completed the leader's call.
    int GetWakeFd() const { return _wake.Get(); }

    /// By the leader.
    void ClearWake();

private:
    void Finish(Call& call);

    osa::UniqueFd _wake;
    mutable std::mutex _mutex;
    std::vector<Call*> _calls;  ///< the oldest first
    bool _hasLeader = false;
};

}  // namespace zarip::msgbus
