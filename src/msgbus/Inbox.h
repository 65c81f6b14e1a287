// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>

#include "msgbus/DBusHandles.h"

namespace zarip::msgbus {

/// The received messages that wait for the listen thread, in order. *Thread-safe*; its mutex is a leaf.
///
/// What libdbus has read is moved here at once, because libdbus stops reading when it holds too much, and
/// then no reply would get through either. So the inbox itself is bounded: beyond its limits the oldest
/// signals are dropped, and a call that finds no room is handed back to be refused. A single message may be
/// larger than the limit.
class Inbox {
public:
    /// What became of a message, and of those before it.
    enum class Result { kKept, kDroppedSignals, kFull };

    struct Limits {
        std::size_t memory;
        std::size_t count;
    };

    /// Takes the message unless the result is `kFull`. @param size  its size in bytes.
    Result Put(MessageRef& message, std::size_t size, const Limits& limits);

    /// The oldest message, or null.
    MessageRef Take();

    std::size_t GetCount() const;

    /// How many messages with file descriptors are kept.
    std::size_t CountWithDescriptors() const;

private:
    struct Entry {
        MessageRef message;
        std::size_t memory;
        std::uint64_t number;  ///< in the order of arrival
        bool hasDescriptors;
    };
    using Queue = std::deque<Entry>;

    MessageRef TakeFrom(Queue& queue);

    mutable std::mutex _mutex;
    // Apart, so that the oldest signal is found at once.
    Queue _signals;
    Queue _others;
    std::size_t _memory = 0;
    std::size_t _withDescriptors = 0;
    std::uint64_t _lastNumber = 0;
};

/// What a message takes on the wire, about.
std::size_t MeasureMessage(DBusMessage* message);

}  // namespace zarip::msgbus
