// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>

#include "msgbus/DBusHandles.h"

namespace zarip::msgbus {

/// The received messages that wait for the listen thread, in order. *Thread-safe*; no other lock is taken
/// while its mutex is held.
///
/// Messages are moved here as soon as libdbus has read them. libdbus stops reading when it holds too much,
/// and then replies would not arrive either. The inbox is limited instead: beyond its limits the oldest
/// signals are dropped, and a call for which there is no room is returned to be refused. A single message may
/// be larger than the limit.
class Inbox {
public:
    /// The result for a message and for those before it.
    enum class Result { kKept, kDroppedSignals, kFull };

    struct Limits {
        std::size_t memory;
        std::size_t count;
    };

    /// Takes the message unless the result is `kFull`.
    /// @param size  the message's size in bytes.
    Result Put(MessageRef& message, std::size_t size, const Limits& limits);

    /// Takes and returns the oldest message, or null.
    MessageRef Take();

    std::size_t GetCount() const;

    /// Returns the number of kept messages that have file descriptors.
    std::size_t CountWithDescriptors() const;

private:
    struct Entry {
        MessageRef message;
        std::size_t memory;
        std::uint64_t number;  ///< increases in the order of arrival
        bool hasDescriptors;
    };
    using Queue = std::deque<Entry>;

    MessageRef TakeFrom(Queue& queue);

    mutable std::mutex _mutex;
    // Two queues, so that the oldest signal is found without a search.
    Queue _signals;
    Queue _others;
    std::size_t _memory = 0;
    std::size_t _withDescriptors = 0;
    std::uint64_t _lastNumber = 0;
};

/// Returns the approximate size of a message on the wire.
std::size_t MeasureMessage(DBusMessage* message);

}  // namespace zarip::msgbus
