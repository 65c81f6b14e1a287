// SPDX-License-Identifier: MIT

#pragma once

#include "inet/RequestProgress.h"
#include "osa/HeldConnections.h"
#include "osa/SocketAddress.h"

namespace zarip::inet {

/// A connection of an `HttpServer`, from accept to close. It belongs to one thread at a time: to the leading
/// thread while it is read, written or drained, and to the thread of its handler in between.
///
/// `bytes` is first the part of the request that has arrived, then the part of the answer that has not been
/// sent.
struct ServedConnection final : public osa::HeldConnection {
    enum class State {
        kReading,
        kWriting,
        kDraining,  ///< the answer has been sent; further bytes from the client are dropped
    };
    State state = State::kReading;
    osa::SocketAddress peer;
    RequestProgress progress;
    /// The time limit of the current state: for the head, for writing while the server stops, or for
    /// draining.
    osa::MonotonicMs end = osa::kNever;
    std::size_t written = 0;
    /// The number of bytes of the answer that were unacknowledged at the last check.
    int unacknowledged = 0;
    /// The client has ended sending.
    bool hasEnded = false;
    /// A part of the request has not been read and may still arrive.
    bool isCut = false;
};

}  // namespace zarip::inet
