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
/// A message is *open* at first: arguments are appended and fields are set. It is *sent* once a connection
/// has accepted it, or from the start if it was received; then nothing changes it any more, and sending it
/// again sends a copy.
class MsgBusMsgImpl {
public:
    /// Throws "MsgBusMsg: Trying to create msg from null ptr!".
    explicit MsgBusMsgImpl(MessageRef message);

    /// @param borrowed  the caller keeps it for as long as this object lives, and it counts as sent. Not
    /// null.
    explicit MsgBusMsgImpl(DBusMessage* borrowed);

    /// An open copy. Throws "dbus_message_copy failed".
    MsgBusMsgImpl(const MsgBusMsgImpl& original);
    MsgBusMsgImpl& operator=(const MsgBusMsgImpl&) = delete;
    ~MsgBusMsgImpl() = default;

    DBusMessage* Get() const { return _message; }

    /// For code that may change the message without this object's knowledge: its size is not known any more.
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

    /// The message in the form in which a connection sends it, and its size in bytes without the short
    /// fields. The message itself, unless it was sent or somebody else may change it: then a copy of it.
    struct Outgoing {
        MessageRef message;
        std::size_t size;
    };

    /// Throws "dbus_connection_send failed" for a message over which the bus would close the connection:
    /// above 32 MiB, with names that are libdbus's own, without a field that its type needs, or malformed.
    Outgoing MakeOutgoing() const;

private:
    /// Throws unless `codes` more type codes may be appended.
    void CheckAppend(std::size_t codes) const;

    MessageRef _owned;  ///< null for a borrowed message
    DBusMessage* _message;
    bool _sent;
    bool _isSizeKnown;
    std::size_t _size = 0;  ///< of the arguments, at most
};

}  // namespace zarip::msgbus
