// SPDX-License-Identifier: MIT

#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <zarip/osa/Export.h>

struct DBusMessage;

namespace zarip::msgbus {

class MsgBusMsgArgumentDumper;
class MsgBusMsgArgumentReader;
class MsgBusMsgImpl;

/// A message of the bus: a method call, a reply, an error or a signal, with typed arguments.
///
/// *One thread at a time.* A message is *open* at first and *sent* after it was sent or received. It can be
/// sent again, but fields can no longer be set and arguments no longer be appended. Errors throw
/// `osa::Exception`, after which the message is still usable. All strings are UTF-8 and end at the first zero
/// byte.
///
/// A message can hold 255 type codes: one for each argument, two for an array. Another argument throws
/// "MsgBusMsg: too many arguments!".
class ZARIP_EXPORT MsgBusMsg {
public:
    enum MsgBusMsgType : int { kSignal = 1, kMethodCall = 2 };

    /// Throws "MsgBusMsg: Invalid msg type!", "MsgBusMsg: Creating msg failed!".
    explicit MsgBusMsg(MsgBusMsgType type);

    /// Makes an open deep copy. Throws "dbus_message_copy failed".
    MsgBusMsg(const MsgBusMsg& other);
    MsgBusMsg& operator=(const MsgBusMsg&) = delete;

    /// Wraps a message of libdbus for reading, for programs that also use that library, and adds a reference
    /// of its own. The state is *sent*. Throws "MsgBusMsg: Trying to create msg from null ptr!".
    explicit MsgBusMsg(DBusMessage* message);

    /// *Takes ownership* of the implementation object.
    explicit MsgBusMsg(MsgBusMsgImpl* impl);

    virtual ~MsgBusMsg();

    /// Each setter throws "dbus_message_set_member failed" (or `_interface`, `_destination`, `_path`) if the
    /// bus does not allow the value or the message was sent.
    void SetMsgName(const std::string& name);
    void SetMsgInterface(const std::string& interface);
    void SetMsgDestination(const std::string& destination);
    void SetMsgPath(const std::string& path);

    /// Returns "signal", "method_call", "method_return" or "error".
    std::string GetType() const;

    /// These getters return an empty string if the message has no such field.
    std::string GetName() const;
    std::string GetInterface() const;
    std::string GetDestination() const;
    std::string GetPath() const;
    std::string GetSender() const;

    /// Returns the bus's type codes of the arguments, for example "sai".
    std::string GetSignature() const;

    bool IsExpectingResponse() const;

    /// Makes an empty reply to this call, which the *caller owns*. Throws "MsgBusMsg: Trying to create msg
    /// from null ptr!" if this message cannot be answered, for example because it was not sent.
    MsgBusMsg* MakeReplyMsg() const;

    /// Makes an error reply "org.freedesktop.DBus.Error.Failed" to this call, which the *caller owns*. Bytes
    /// of the text that are not UTF-8 are replaced, and the text is truncated to 64 KiB. Throws what
    /// `MakeReplyMsg` throws.
    MsgBusMsg* MakeErrorMsg(const std::string& text) const;

    /// Returns the message of libdbus, *not owned*, for programs that also use that library. From then on a
    /// connection checks the message and sends a copy of it, because the program may have changed it.
    DBusMessage* GetDBusMessage() const;

    /// These operators append one argument. They throw "MsgBusMsg: text is not valid UTF-8!", "MsgBusMsg: too
    /// many arguments!" and "MsgBusMsg: Out of Memory trying to append to msg!".
    MsgBusMsg& operator<<(bool value);
    MsgBusMsg& operator<<(unsigned char value);
    MsgBusMsg& operator<<(short value);
    MsgBusMsg& operator<<(unsigned short value);
    MsgBusMsg& operator<<(int value);
    MsgBusMsg& operator<<(unsigned int value);
    MsgBusMsg& operator<<(long long value);
    MsgBusMsg& operator<<(unsigned long long value);
    MsgBusMsg& operator<<(double value);
    MsgBusMsg& operator<<(const char* value);
    MsgBusMsg& operator<<(const std::string& value);
    MsgBusMsg& operator<<(const std::deque<bool>& value);
    MsgBusMsg& operator<<(const std::vector<unsigned char>& value);
    MsgBusMsg& operator<<(const std::vector<int>& value);
    MsgBusMsg& operator<<(const std::vector<unsigned int>& value);
    MsgBusMsg& operator<<(const std::vector<double>& value);
    MsgBusMsg& operator<<(const std::vector<std::string>& value);

    /// These operators read the first argument and return a reader that continues with the second. They throw
    /// what `MsgBusMsgArgumentReader` throws.
    MsgBusMsgArgumentReader operator>>(bool& value) const;
    MsgBusMsgArgumentReader operator>>(unsigned char& value) const;
    MsgBusMsgArgumentReader operator>>(short& value) const;
    MsgBusMsgArgumentReader operator>>(unsigned short& value) const;
    MsgBusMsgArgumentReader operator>>(int& value) const;
    MsgBusMsgArgumentReader operator>>(unsigned int& value) const;
    MsgBusMsgArgumentReader operator>>(long long& value) const;
    MsgBusMsgArgumentReader operator>>(unsigned long long& value) const;
    MsgBusMsgArgumentReader operator>>(double& value) const;
    MsgBusMsgArgumentReader operator>>(std::string& value) const;

private:
    friend class FakeBus;
    friend class MsgBus;
    friend class MsgBusMsgArgumentDumper;
    friend class MsgBusMsgArgumentReader;

    std::unique_ptr<MsgBusMsgImpl> _impl;
};

}  // namespace zarip::msgbus
