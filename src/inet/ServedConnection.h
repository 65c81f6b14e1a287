// SPDX-License-Identifier: MIT

#pragma once

#include "inet/RequestProgress.h"
#include "osa/HeldConnections.h"
#include "osa/SocketAddress.h"

namespace zarip::inet {

/// A connection of an `HttpServer`, from accept to close. It belongs to one thread at a time: to the thread
/// that leads while it is read, written or drained, to the thread of its handler in between.
///
/// `bytes` is the part of the request that has come, then the part of the answer that has not left.
class ServedConnection final : public osa::HeldConnection {
public:
    enum class State {
        kReading,
        kWriting,
        kDraining,  ///< the answer has left; what the client still sends is dropped
    };
    State state = State::kReading;
    osa::SocketAddress peer;
    RequestProgress progress;
    /// The end of the time for the head; then that of writing while the server stops; then that of draining.
    osa::MonotonicMs end = osa::kNever;
    std::size_t written = 0;
    /// What the kernel held of the answer when the client last got on with it.
    int unacknowledged = 0;
    /// The client has ended sending.
    bool hasEnded = false;
    /// More of the request is to be expected than was read.
    bool isCut = false;
};

}  // namespace zarip::inet
