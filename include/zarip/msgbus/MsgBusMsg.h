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
/// *One thread at a time.* Failures throw `osa::Exception`; the message stays usable after one. Once a
/// message was sent nothing more can be set or appended. All text is UTF-8 and ends at the first zero byte.
///
/// A message carries at most 255 type codes: one for each argument, two for an array. One argument more
/// throws "MsgBusMsg: too many arguments!".
class ZARIP_EXPORT MsgBusMsg {
public:
    enum MsgBusMsgType : int { kSignal = 1, kMethodCall = 2 };

    /// Throws "MsgBusMsg: Invalid msg type!", "MsgBusMsg: Creating msg failed!".
    explicit MsgBusMsg(MsgBusMsgType type);

    /// A deep copy, which was not sent yet; throws "dbus_message_copy failed".
    MsgBusMsg(const MsgBusMsg& other);
    MsgBusMsg& operator=(const MsgBusMsg&) = delete;

    /// A message of libdbus to be read, for programs that use that library, too; *takes a reference* of its
    /// own. As with one that was sent nothing can be set or appended. Throws "MsgBusMsg: Trying to create msg
    /// from null ptr!".
    explicit MsgBusMsg(DBusMessage* message);

    /// *Takes ownership* of the implementation object.
    explicit MsgBusMsg(MsgBusMsgImpl* impl);

    virtual ~MsgBusMsg();

    /// Each throws "dbus_message_set_member failed" (`_interface`, `_destination`, `_path`) for a value that
    /// the bus does not allow there, or after the message was sent.
    void SetMsgName(const std::string& name);
    void SetMsgInterface(const std::string& interface);
    void SetMsgDestination(const std::string& destination);
    void SetMsgPath(const std::string& path);

    /// "signal", "method_call", "method_return" or "error".
    std::string GetType() const;

    /// Empty where the message has no such field.
    std::string GetName() const;
    std::string GetInterface() const;
    std::string GetDestination() const;
    std::string GetPath() const;
    std::string GetSender() const;

    /// The types of the arguments as the bus writes them, such as "sai".
    std::string GetSignature() const;

    bool IsExpectingResponse() const;

    /// An empty reply to this call, *caller owns*. Throws "MsgBusMsg: Trying to create msg from null ptr!"
    /// where there is nothing to reply to, as in a call that was not sent.
    MsgBusMsg* MakeReplyMsg() const;

    /// An error reply "org.freedesktop.DBus.Error.Failed" to this call, *caller owns*. Bytes of the text that
    /// are not UTF-8 are replaced, and it is cut after 64 KiB. Throws as `MakeReplyMsg`.
    MsgBusMsg* MakeErrorMsg(const std::string& text) const;

    /// The message of libdbus, *not owned*, for programs that use that library, too. From then on a
    /// connection sends a copy and checks it first, because this object does not know what the program has
    /// changed.
    DBusMessage* GetDBusMessage() const;

    /// Append one argument. Throw "MsgBusMsg: text is not valid UTF-8!", "MsgBusMsg: too many arguments!" and
    /// "MsgBusMsg: Out of Memory trying to append to msg!".
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

    /// Read the first argument; the reader returned goes on with the second. Throw as
    /// `MsgBusMsgArgumentReader`.
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
