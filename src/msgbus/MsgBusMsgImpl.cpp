// SPDX-License-Identifier: MIT

#include "msgbus/MsgBusMsgImpl.h"

#include <climits>
#include <cstring>
#include <memory>

#include "msgbus/DBusText.h"
#include "zarip/osa/Exception.h"

namespace zarip::msgbus {

namespace {

constexpr std::size_t kMaxMessageSize = std::size_t{32} * 1024 * 1024;  ///< the daemon's limit
/// The maximum size of the fields of a message, except for its path.
constexpr std::size_t kMaxHeaderSize = 4096;
constexpr std::size_t kOverheadOfValue = 8;  // alignment, or a length and a terminating zero

/// An array container that is open for appending. Unless it is closed, the destructor abandons it, so that
/// the message stays valid.
class ArrayContainer {
public:
    ArrayContainer(DBusMessage* message, int elementType) {
        dbus_message_iter_init_append(message, &_outer);
        const char signature[] = {static_cast<char>(elementType), '\0'};
        if (dbus_message_iter_open_container(&_outer, DBUS_TYPE_ARRAY, signature, &_inner) == FALSE) {
            throw osa::Exception("dbus_message_iter_open_container failed");
        }
        _open = true;
    }
    ArrayContainer(const ArrayContainer&) = delete;
    ArrayContainer& operator=(const ArrayContainer&) = delete;
    ~ArrayContainer() {
        if (_open) {
            dbus_message_iter_abandon_container(&_outer, &_inner);
        }
    }

    DBusMessageIter* Inner() { return &_inner; }

    void Close() {
        _open = false;
        if (dbus_message_iter_close_container(&_outer, &_inner) == FALSE) {
            throw osa::Exception("dbus_messge_iter_close_container failed");
        }
    }

private:
    DBusMessageIter _outer{};
    DBusMessageIter _inner{};
    bool _open = false;
};

[[noreturn]] void ThrowOutOfMemory() {
    throw osa::Exception("MsgBusMsg: Out of Memory trying to append to msg!");
}

[[noreturn]] void ThrowSendFailed() {
    throw osa::Exception("dbus_connection_send failed");
}

MessageRef CopyMessage(DBusMessage* message) {
    MessageRef copy = MessageRef::Adopt(dbus_message_copy(message));
    if (!copy) {
        throw osa::Exception("dbus_message_copy failed");
    }
    return copy;
}

/// Returns whether the message has the fields that its type needs and no name that libdbus reserves.
bool HasValidFields(DBusMessage* message) {
    const char* const path = dbus_message_get_path(message);
    const char* const interface = dbus_message_get_interface(message);
    if (ViewOf(path) == DBUS_PATH_LOCAL || ViewOf(interface) == DBUS_INTERFACE_LOCAL) {
        return false;
    }
    const bool isAddressed = path != nullptr && dbus_message_get_member(message) != nullptr;
    switch (dbus_message_get_type(message)) {
        case DBUS_MESSAGE_TYPE_METHOD_CALL:
            return isAddressed;
        case DBUS_MESSAGE_TYPE_SIGNAL:
            return isAddressed && interface != nullptr;
        case DBUS_MESSAGE_TYPE_METHOD_RETURN:
            return dbus_message_get_reply_serial(message) != 0;
        case DBUS_MESSAGE_TYPE_ERROR:
            return dbus_message_get_reply_serial(message) != 0 &&
                   dbus_message_get_error_name(message) != nullptr;
        default:
            return false;
    }
}

/// Determines the size of a message on the wire by marshalling it and demarshalling it as the daemon does.
/// Returns 0 for a message that the daemon would not accept.
std::size_t MeasureOnWire(DBusMessage* message) {
    const MessageRef copy = CopyMessage(message);
    dbus_message_set_serial(copy.Get(), 1);  // a message without a serial number is malformed
    char* data = nullptr;
    int size = 0;
    if (dbus_message_marshal(copy.Get(), &data, &size) == FALSE) {
        return 0;
    }
    const std::unique_ptr<char, void (*)(void*)> owner(data, &dbus_free);
    if (static_cast<std::size_t>(size) > kMaxMessageSize) {
        return 0;
    }
    if (dbus_message_contains_unix_fds(message) != FALSE) {
        return static_cast<std::size_t>(size);  // libdbus cannot demarshal descriptors
    }
    DBusErrorRecord error;
    return MessageRef::Adopt(dbus_message_demarshal(data, size, error.Get())) ? static_cast<std::size_t>(size)
                                                                              : 0;
}

}  // namespace

MsgBusMsgImpl::MsgBusMsgImpl(MessageRef message)
    : _owned(std::move(message)), _message(_owned.Get()), _sent(false), _isSizeKnown(false) {
    if (_message == nullptr) {
        throw osa::Exception("MsgBusMsg: Trying to create msg from null ptr!");
    }
    _isSizeKnown = *dbus_message_get_signature(_message) == '\0';
}

MsgBusMsgImpl::MsgBusMsgImpl(DBusMessage* borrowed) : _message(borrowed), _sent(true), _isSizeKnown(false) {}

MsgBusMsgImpl::MsgBusMsgImpl(const MsgBusMsgImpl& original)
    : _owned(CopyMessage(original._message)),
      _message(_owned.Get()),
      _sent(false),
      _isSizeKnown(original._isSizeKnown),
      _size(original._size) {}

MsgBusMsgImpl::Outgoing MsgBusMsgImpl::MakeOutgoing() const {
    if (!HasValidFields(_message)) {
        ThrowSendFailed();
    }
    if (_isSizeKnown) {
        const std::size_t size = _size + ViewOf(dbus_message_get_path(_message)).size();
        if (size + kMaxHeaderSize > kMaxMessageSize) {
            ThrowSendFailed();
        }
        return {_sent ? CopyMessage(_message) : MessageRef::Share(_message), size};
    }
    const std::size_t size = MeasureOnWire(_message);
    if (size == 0) {
        ThrowSendFailed();
    }
    return {CopyMessage(_message), size};
}

void MsgBusMsgImpl::CheckAppend(std::size_t codes) const {
    if (_message == nullptr) {
        throw osa::Exception("MsgBusMsg: trying to append to null msg!");
    }
    if (_sent) {
        throw osa::Exception("MsgBusMsg: trying to append to a sent msg!");
    }
    if (std::strlen(dbus_message_get_signature(_message)) + codes > DBUS_MAXIMUM_SIGNATURE_LENGTH) {
        throw osa::Exception("MsgBusMsg: too many arguments!");
    }
}

void MsgBusMsgImpl::AppendToMsg(int typeCode, const void* value) {
    CheckAppend(1);
    DBusMessageIter end;
    dbus_message_iter_init_append(_message, &end);
    if (dbus_message_iter_append_basic(&end, typeCode, value) == FALSE) {
        ThrowOutOfMemory();
    }
    _size += kOverheadOfValue;
}

void MsgBusMsgImpl::AppendTextToMsg(const char* text) {
    if (!IsValidText(text)) {
        throw osa::Exception("MsgBusMsg: text is not valid UTF-8!");
    }
    const std::size_t length = std::strlen(text);
    if (length > DBUS_MAXIMUM_MESSAGE_LENGTH) {
        ThrowOutOfMemory();
    }
    AppendToMsg(DBUS_TYPE_STRING, &text);
    _size += length;
}

void MsgBusMsgImpl::AppendArrayToMsg(int elementType, const void* data, std::size_t count,
                                     std::size_t elementSize) {
    CheckAppend(2);
    if (count > DBUS_MAXIMUM_ARRAY_LENGTH / elementSize) {
        ThrowOutOfMemory();
    }
    ArrayContainer array(_message, elementType);
    if (dbus_message_iter_append_fixed_array(array.Inner(), elementType, &data, static_cast<int>(count)) ==
        FALSE) {
        ThrowOutOfMemory();
    }
    array.Close();
    _size += count * elementSize + kOverheadOfValue;
}

void MsgBusMsgImpl::AppendStringArrayToMsg(const std::vector<std::string>& strings) {
    CheckAppend(2);
    std::size_t size = kOverheadOfValue;
    for (const auto& string : strings) {
        if (!IsValidText(string.c_str())) {
            throw osa::Exception("MsgBusMsg: text is not valid UTF-8!");
        }
        size += string.size() + kOverheadOfValue;
    }
    if (size > DBUS_MAXIMUM_ARRAY_LENGTH) {
        ThrowOutOfMemory();
    }
    ArrayContainer array(_message, DBUS_TYPE_STRING);
    for (const auto& string : strings) {
        const char* text = string.c_str();
        if (dbus_message_iter_append_basic(array.Inner(), DBUS_TYPE_STRING, &text) == FALSE) {
            ThrowOutOfMemory();
        }
    }
    array.Close();
    _size += size;
}

}  // namespace zarip::msgbus
