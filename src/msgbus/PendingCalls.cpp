// SPDX-License-Identifier: MIT

#include "msgbus/PendingCalls.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <chrono>

#include "zarip/osa/Exception.h"

namespace zarip::msgbus {

PendingCalls::PendingCalls() : _wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!_wake.IsValid()) {
        throw osa::Exception("pipe failed");
    }
}

void PendingCalls::Add(Call& call) {
    const std::lock_guard<std::mutex> lock(_mutex);
    _calls.push_back(&call);
}

bool PendingCalls::Begin(Call& call) {
    const std::lock_guard<std::mutex> lock(_mutex);
    call.isWaiting = true;
    call.leads = !std::exchange(_hasLeader, true);
    return call.leads;
}

bool PendingCalls::Remove(Call& call) {
    const std::lock_guard<std::mutex> lock(_mutex);
    _calls.erase(std::find(_calls.begin(), _calls.end(), &call));
    if (!call.leads) {
        return false;
    }
    const auto next = std::find_if(_calls.begin(), _calls.end(),
                                   [](const Call* other) { return other->isWaiting && !other->isDone; });
    _hasLeader = next != _calls.end();
    if (_hasLeader) {
        (*next)->leads = true;
        (*next)->changed.notify_one();
    }
    return !_hasLeader;
}

void PendingCalls::Wait(Call& call, osa::MonotonicMs until) {
    std::unique_lock<std::mutex> lock(_mutex);
    const auto isOver = [&call] { return call.isDone || call.leads; };
    if (until == osa::kNever) {
        call.changed.wait(lock, isOver);
    } else {
        call.changed.wait_for(lock, std::chrono::milliseconds(until - osa::NowMs()), isOver);
    }
}

PendingCalls::Role PendingCalls::GetRole(const Call& call) const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return call.isDone ? Role::kDone : call.leads ? Role::kLeader : Role::kFollower;
}

bool PendingCalls::Complete(MessageRef& reply) {
    const dbus_uint32_t serial = dbus_message_get_reply_serial(reply.Get());
    const std::lock_guard<std::mutex> lock(_mutex);
    for (Call* const call : _calls) {
        if (call->serial == serial && !call->isDone) {
            call->reply = std::move(reply);
            FinishCall(*call);
            return true;
        }
    }
    return false;
}

void PendingCalls::FailAll() {
    const std::lock_guard<std::mutex> lock(_mutex);
    for (Call* const call : _calls) {
        if (!call->isDone) {
            FinishCall(*call);
        }
    }
}

void PendingCalls::FinishCall(Call& call) {
    call.isDone = true;
    if (::pthread_equal(call.thread, ::pthread_self()) != 0) {
        return;
    }
    if (call.leads) {
        ::eventfd_write(_wake.Get(), 1);
    } else {
        call.changed.notify_one();
    }
}

void PendingCalls::ClearWake() {
    eventfd_t ignored = 0;
    ::eventfd_read(_wake.Get(), &ignored);
}

}  // namespace zarip::msgbus
