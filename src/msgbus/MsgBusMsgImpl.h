#pragma once

#include <dbus/dbus.h>

#include <cstddef>
#include <string>
#include <vector>

namespace zarip::msgbus {

/// The message of the bus library behind a `MsgBusMsg`. *One thread at a time.*
class MsgBusMsgImpl {
public:
    /// @param message  a reference that this object gives up at its end when `owned`; otherwise borrowed: the
    ///     bus library keeps it for as long as this object lives, and it is as one that was sent.
    /// Throws "MsgBusMsg: Trying to create msg from null ptr!".
    MsgBusMsgImpl(DBusMessage* message, bool owned);
    MsgBusMsgImpl(const MsgBusMsgImpl&) = delete;
    MsgBusMsgImpl& operator=(const MsgBusMsgImpl&) = delete;
    ~MsgBusMsgImpl();

    DBusMessage* Get() const { return _message; }

    void AppendToMsg(int typeCode, const void* value);
    void AppendTextToMsg(const char* text);
    void AppendArrayToMsg(int elementType, const void* data, std::size_t count, std::size_t elementSize);
    void AppendStringArrayToMsg(const std::vector<std::string>& strings);

    /// From now on the message belongs to the bus library: whatever would change it throws.
    void MarkSent() { _sent = true; }
    bool IsSent() const { return _sent; }

    /// The bytes appended here, headers not counted.
    std::size_t GetSize() const { return _size; }
    void SetSize(std::size_t size) { _size = size; }

private:
    /// Throws unless `codes` more type codes may be appended.
    void CheckAppend(std::size_t codes) const;

    DBusMessage* _message;
    bool _owned;
    bool _sent;
    std::size_t _size = 0;
};

}  // namespace zarip::msgbus
