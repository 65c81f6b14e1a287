// SPDX-License-Identifier: MIT

#include "msgbus/Inbox.h"

#include <cstring>
#include <utility>

namespace zarip::msgbus {

namespace {

constexpr std::size_t kOverheadOfMessage = 640;

/// How many values are looked at before the message is written down instead, which is faster then.
constexpr int kMaxValues = 10'000;

/// Adds the sizes of the values from `position` to the end of its container; false if there are too many.
bool AddSizes(DBusMessageIter& position, std::size_t& size, int& values) {
    for (int type = 0; (type = dbus_message_iter_get_arg_type(&position)) != DBUS_TYPE_INVALID;
         dbus_message_iter_next(&position)) {
        if (++values > kMaxValues) {
            return false;
        }
        size += sizeof(double);
        if (type == DBUS_TYPE_STRING || type == DBUS_TYPE_OBJECT_PATH || type == DBUS_TYPE_SIGNATURE) {
            const char* text = nullptr;
            dbus_message_iter_get_basic(&position, &text);
            size += std::strlen(text);
            continue;
        }
        if (dbus_type_is_container(type) == FALSE) {
            continue;
        }
        DBusMessageIter inner;
        dbus_message_iter_recurse(&position, &inner);
        const int element = type == DBUS_TYPE_ARRAY ? dbus_message_iter_get_element_type(&position) : 0;
        if (element != 0 && element != DBUS_TYPE_UNIX_FD && dbus_type_is_fixed(element) != FALSE) {
            const void* data = nullptr;
            int count = 0;
            dbus_message_iter_get_fixed_array(&inner, static_cast<void*>(&data), &count);
            size += static_cast<std::size_t>(count) * (element == DBUS_TYPE_BYTE ? 1 : sizeof(double));
        } else if (!AddSizes(inner, size, values)) {
            return false;
        }
    }
    return true;
}

std::size_t MeasureByWriting(DBusMessage* message) {
    char* data = nullptr;
    int size = 0;
    if (dbus_message_marshal(message, &data, &size) == FALSE) {
        return 0;
    }
    dbus_free(data);
    return static_cast<std::size_t>(size);
}

}  // namespace

std::size_t MeasureMessage(DBusMessage* message) {
    std::size_t size = ViewOf(dbus_message_get_path(message)).size();
    int values = 0;
    DBusMessageIter position;
    dbus_message_iter_init(message, &position);
    return AddSizes(position, size, values) ? size : MeasureByWriting(message);
}

Inbox::Result Inbox::Put(MessageRef& message, std::size_t size, const Limits& limits) {
    const std::size_t memory = size + kOverheadOfMessage;
    const bool isSignal = dbus_message_get_type(message.Get()) == DBUS_MESSAGE_TYPE_SIGNAL;
    const bool hasDescriptors = dbus_message_contains_unix_fds(message.Get()) != FALSE;
    const std::lock_guard<std::mutex> lock(_mutex);
    Result result = Result::kKept;
    while (_signals.size() + _others.size() != 0 &&
           (_signals.size() + _others.size() >= limits.count || _memory + memory > limits.memory)) {
        if (_signals.empty()) {
            return Result::kFull;
        }
        TakeFrom(_signals);
        result = Result::kDroppedSignals;
    }
    Queue& queue = isSignal ? _signals : _others;
    queue.emplace_back();  // first, so that the caller still has the message if there is no memory
    queue.back() = {std::move(message), memory, ++_lastNumber, hasDescriptors};
    _memory += memory;
    _withDescriptors += hasDescriptors ? 1 : 0;
    return result;
}

MessageRef Inbox::Take() {
    const std::lock_guard<std::mutex> lock(_mutex);
    if (_signals.empty() && _others.empty()) {
        return {};
    }
    const bool signalIsNext =
        _others.empty() || (!_signals.empty() && _signals.front().number < _others.front().number);
    return TakeFrom(signalIsNext ? _signals : _others);
}

MessageRef Inbox::TakeFrom(Queue& queue) {
    MessageRef message = std::move(queue.front().message);
    _memory -= queue.front().memory;
    _withDescriptors -= queue.front().hasDescriptors ? 1 : 0;
    queue.pop_front();
    return message;
}

std::size_t Inbox::GetCount() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _signals.size() + _others.size();
}

std::size_t Inbox::CountWithDescriptors() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _withDescriptors;
}

}  // namespace zarip::msgbus
