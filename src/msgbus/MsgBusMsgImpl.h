// SPDX-License-Identifier: MIT

#pragma once

#include <dbus/dbus.h>

#include <cstddef>
#include <string>
#include <vector>

#include "msgbus/DBusHandles.h"

namespace zarip::msgbus {

/// The libdbus message of a `MsgBusMsg`. *One thread at a time.*
///
/// A message is *open* at first: arguments can be appended and fields be set. It is *sent* once a connection
/// has accepted it, or from the beginning if it was received. Then it does not change any more, and sending
/// it again sends a copy.
class MsgBusMsgImpl {
public:
    /// Takes over a reference. Throws "MsgBusMsg: Trying to create msg from null ptr!".
    explicit MsgBusMsgImpl(MessageRef message);

    /// @param borrowed  *not owned*, must outlive this object, and counts as sent. Not null.
    explicit MsgBusMsgImpl(DBusMessage* borrowed);

    /// Makes an open copy. Throws "dbus_message_copy failed".
    MsgBusMsgImpl(const MsgBusMsgImpl& original);
    MsgBusMsgImpl& operator=(const MsgBusMsgImpl&) = delete;
    ~MsgBusMsgImpl() = default;

    DBusMessage* Get() const { return _message; }

    /// Returns the message to code that may change it, after which its size is unknown.
    DBusMessage* Expose() {
        _isSizeKnown = false;
        return _message;
    }

    void AppendToMsg(int typeCode, const void* value);
    void AppendTextToMsg(const char* text);
    void AppendArrayToMsg(int elementType, const void* data, std::size_t count, std::size_t elementSize);
    void AppendStringArrayToMsg(const std::vector<std::string>& strings);

    void MarkSent() { _sent = true; }
    bool IsSent() const { return _sent; }

    /// A message that a connection can send, and its size in bytes without the short fields. It is the
    /// message itself, or a copy if the message was sent or other code may change it.
    struct Outgoing {
        MessageRef message;
        std::size_t size;
    };

    /// Throws "dbus_connection_send failed" for a message for which the bus would close the connection:
    /// larger than 32 MiB, with names that libdbus reserves, without a field that its type needs, or
    /// malformed.
    Outgoing MakeOutgoing() const;

private:
    /// Throws unless the message is open and has room for `codes` more type codes.
    void CheckAppend(std::size_t codes) const;

    MessageRef _owned;  ///< null for a borrowed message
    DBusMessage* _message;
    bool _sent;
    bool _isSizeKnown;
    std::size_t _size = 0;  ///< an upper bound for the size of the arguments
};

}  // namespace zarip::msgbus
