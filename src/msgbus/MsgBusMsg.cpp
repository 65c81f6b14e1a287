// SPDX-License-Identifier: MIT

#include "zarip/msgbus/MsgBusMsg.h"

#include <dbus/dbus.h>

#include "msgbus/DBusText.h"
#include "msgbus/MsgBusMsgImpl.h"
#include "zarip/msgbus/MsgBusMsgArgumentReader.h"
#include "zarip/msgbus/MsgBusRemoteMethod.h"
#include "zarip/msgbus/MsgBusSignal.h"
#include "zarip/osa/Exception.h"

namespace zarip::msgbus {

static_assert(sizeof(dbus_bool_t) == sizeof(unsigned int));

namespace {

std::string TextOrEmpty(const char* text) {
    return text != nullptr ? text : "";
}

/// Takes over a reference; null if libdbus could not make the message.
MsgBusMsgImpl* NewImpl(DBusMessage* made) {
    MessageRef message = MessageRef::Adopt(made);
    if (!message) {
        throw osa::Exception("MsgBusMsg: Creating msg failed!");
    }
    return new MsgBusMsgImpl(std::move(message));
}

MsgBusMsgImpl* NewMessage(MsgBusMsg::MsgBusMsgType type) {
    int dbusType = 0;
    switch (type) {
        case MsgBusMsg::kSignal:
            dbusType = DBUS_MESSAGE_TYPE_SIGNAL;
            break;
        case MsgBusMsg::kMethodCall:
            dbusType = DBUS_MESSAGE_TYPE_METHOD_CALL;
            break;
        default:
            throw osa::Exception("MsgBusMsg: Invalid msg type!");
    }
    return NewImpl(dbus_message_new(dbusType));
}

using Setter = dbus_bool_t (*)(DBusMessage*, const char*);
using Validator = bool (*)(const char*);

void Set(MsgBusMsgImpl& message, Setter setter, Validator isValid, const std::string& value,
         const char* error) {
    if (message.IsSent() || !isValid(value.c_str()) || setter(message.Get(), value.c_str()) == FALSE) {
        throw osa::Exception("%s", error);
    }
}

/// A reply or error answers a serial number, which a call gets when it is sent.
void CheckAnswerable(DBusMessage* call) {
    if (dbus_message_get_serial(call) == 0) {
        throw osa::Exception("MsgBusMsg: Trying to create msg from null ptr!");
    }
}

template <class T>
MsgBusMsgArgumentReader ReadFirst(const MsgBusMsg& message, T& value) {
    MsgBusMsgArgumentReader reader(message);
    reader >> value;
    return reader;
}

}  // namespace

MsgBusMsg::MsgBusMsg(MsgBusMsgType type) : _impl(NewMessage(type)) {}

MsgBusMsg::MsgBusMsg(const MsgBusMsg& other) : _impl(std::make_unique<MsgBusMsgImpl>(*other._impl)) {}

MsgBusMsg::MsgBusMsg(DBusMessage* message)
    : _impl(std::make_unique<MsgBusMsgImpl>(message != nullptr ? MessageRef::Share(message) : MessageRef())) {
    _impl->MarkSent();
    _impl->Expose();
}

MsgBusMsg::MsgBusMsg(MsgBusMsgImpl* impl) : _impl(impl) {
    if (!_impl) {
        throw osa::Exception("MsgBusMsg: Trying to create msg from null ptr!");
    }
}

MsgBusMsg::~MsgBusMsg() = default;

void MsgBusMsg::SetMsgName(const std::string& name) {
    Set(*_impl, &dbus_message_set_member, &IsValidMember, name, "dbus_message_set_member failed");
}

void MsgBusMsg::SetMsgInterface(const std::string& interface) {
    Set(*_impl, &dbus_message_set_interface, &IsValidInterface, interface,
        "dbus_message_set_interface failed");
}

void MsgBusMsg::SetMsgDestination(const std::string& destination) {
    Set(*_impl, &dbus_message_set_destination, &IsValidBusName, destination,
        "dbus_message_set_destination failed");
}

void MsgBusMsg::SetMsgPath(const std::string& path) {
    Set(*_impl, &dbus_message_set_path, &IsValidPath, path, "dbus_message_set_path failed");
}

std::string MsgBusMsg::GetType() const {
    return TextOrEmpty(dbus_message_type_to_string(dbus_message_get_type(_impl->Get())));
}

std::string MsgBusMsg::GetName() const {
    return TextOrEmpty(dbus_message_get_member(_impl->Get()));
}

std::string MsgBusMsg::GetInterface() const {
    return TextOrEmpty(dbus_message_get_interface(_impl->Get()));
}

std::string MsgBusMsg::GetDestination() const {
    return TextOrEmpty(dbus_message_get_destination(_impl->Get()));
}

std::string MsgBusMsg::GetPath() const {
    return TextOrEmpty(dbus_message_get_path(_impl->Get()));
}

std::string MsgBusMsg::GetSender() const {
    return TextOrEmpty(dbus_message_get_sender(_impl->Get()));
}

std::string MsgBusMsg::GetSignature() const {
    return TextOrEmpty(dbus_message_get_signature(_impl->Get()));
}

bool MsgBusMsg::IsExpectingResponse() const {
    return dbus_message_get_no_reply(_impl->Get()) == FALSE;
}

MsgBusMsg* MsgBusMsg::MakeReplyMsg() const {
    CheckAnswerable(_impl->Get());
    return new MsgBusMsg(new MsgBusMsgImpl(MessageRef::Adopt(dbus_message_new_method_return(_impl->Get()))));
}

MsgBusMsg* MsgBusMsg::MakeErrorMsg(const std::string& text) const {
    CheckAnswerable(_impl->Get());
    return new MsgBusMsg(new MsgBusMsgImpl(MessageRef::Adopt(
        dbus_message_new_error(_impl->Get(), DBUS_ERROR_FAILED, ToErrorText(text).c_str()))));
}

DBusMessage* MsgBusMsg::GetDBusMessage() const {
    return _impl->Expose();
}

MsgBusMsg& MsgBusMsg::operator<<(bool value) {
    const dbus_bool_t number = value ? TRUE : FALSE;
    _impl->AppendToMsg(DBUS_TYPE_BOOLEAN, &number);
    return *this;
}

MsgBusMsg& MsgBusMsg::operator<<(unsigned char value) {
    _impl->AppendToMsg(DBUS_TYPE_BYTE, &value);
    return *this;
}

MsgBusMsg& MsgBusMsg::operator<<(short value) {
    _impl->AppendToMsg(DBUS_TYPE_INT16, &value);
    return *this;
}

MsgBusMsg& MsgBusMsg::operator<<(unsigned short value) {
    _impl->AppendToMsg(DBUS_TYPE_UINT16, &value);
    return *this;
}

MsgBusMsg& MsgBusMsg::operator<<(int value) {
    _impl->AppendToMsg(DBUS_TYPE_INT32, &value);
    return *this;
}

MsgBusMsg& MsgBusMsg::operator<<(unsigned int value) {
    _impl->AppendToMsg(DBUS_TYPE_UINT32, &value);
    return *this;
}

MsgBusMsg& MsgBusMsg::operator<<(long long value) {
    _impl->AppendToMsg(DBUS_TYPE_INT64, &value);
    return *this;
}

MsgBusMsg& MsgBusMsg::operator<<(unsigned long long value) {
    _impl->AppendToMsg(DBUS_TYPE_UINT64, &value);
    return *this;
}

MsgBusMsg& MsgBusMsg::operator<<(double value) {
    _impl->AppendToMsg(DBUS_TYPE_DOUBLE, &value);
    return *this;
}

MsgBusMsg& MsgBusMsg::operator<<(const char* value) {
    _impl->AppendTextToMsg(value);
    return *this;
}

MsgBusMsg& MsgBusMsg::operator<<(const std::string& value) {
    _impl->AppendTextToMsg(value.c_str());
    return *this;
}

MsgBusMsg& MsgBusMsg::operator<<(const std::deque<bool>& value) {
    std::vector<dbus_bool_t> numbers;
    numbers.reserve(value.size());
    for (const bool element : value) {
        numbers.push_back(element ? TRUE : FALSE);
    }
    _impl->AppendArrayToMsg(DBUS_TYPE_BOOLEAN, numbers.data(), numbers.size(), sizeof(dbus_bool_t));
    return *this;
}

MsgBusMsg& MsgBusMsg::operator<<(const std::vector<unsigned char>& value) {
    _impl->AppendArrayToMsg(DBUS_TYPE_BYTE, value.data(), value.size(), sizeof(unsigned char));
    return *this;
}

MsgBusMsg& MsgBusMsg::operator<<(const std::vector<int>& value) {
    _impl->AppendArrayToMsg(DBUS_TYPE_INT32, value.data(), value.size(), sizeof(int));
    return *this;
}

MsgBusMsg& MsgBusMsg::operator<<(const std::vector<unsigned int>& value) {
    _impl->AppendArrayToMsg(DBUS_TYPE_UINT32, value.data(), value.size(), sizeof(unsigned int));
    return *this;
}

MsgBusMsg& MsgBusMsg::operator<<(const std::vector<double>& value) {
    _impl->AppendArrayToMsg(DBUS_TYPE_DOUBLE, value.data(), value.size(), sizeof(double));
    return *this;
}

MsgBusMsg& MsgBusMsg::operator<<(const std::vector<std::string>& value) {
    _impl->AppendStringArrayToMsg(value);
    return *this;
}

MsgBusMsgArgumentReader MsgBusMsg::operator>>(bool& value) const {
    return ReadFirst(*this, value);
}
MsgBusMsgArgumentReader MsgBusMsg::operator>>(unsigned char& value) const {
    return ReadFirst(*this, value);
}
MsgBusMsgArgumentReader MsgBusMsg::operator>>(short& value) const {
    return ReadFirst(*this, value);
}
MsgBusMsgArgumentReader MsgBusMsg::operator>>(unsigned short& value) const {
    return ReadFirst(*this, value);
}
MsgBusMsgArgumentReader MsgBusMsg::operator>>(int& value) const {
    return ReadFirst(*this, value);
}
MsgBusMsgArgumentReader MsgBusMsg::operator>>(unsigned int& value) const {
    return ReadFirst(*this, value);
}
MsgBusMsgArgumentReader MsgBusMsg::operator>>(long long& value) const {
    return ReadFirst(*this, value);
}
MsgBusMsgArgumentReader MsgBusMsg::operator>>(unsigned long long& value) const {
    return ReadFirst(*this, value);
}
MsgBusMsgArgumentReader MsgBusMsg::operator>>(double& value) const {
    return ReadFirst(*this, value);
}
MsgBusMsgArgumentReader MsgBusMsg::operator>>(std::string& value) const {
    return ReadFirst(*this, value);
}

MsgBusObjectSelector::MsgBusObjectSelector(const std::string& destination, const std::string& path,
                                           const std::string& interface)
    : _destination(destination),
      _path(path),
      _interface(interface),
      _valid(IsValidBusName(_destination.c_str()) && IsValidPath(_path.c_str()) &&
             IsValidInterface(_interface.c_str())) {}

namespace {

/// The message of a constructor below: names that the bus does not allow would end the process in the bus
/// library, so they take the way through the setters, which throw.
MsgBusMsgImpl* NewCall(const MsgBusObjectSelector& selector, bool valid, const char* member) {
    if (!valid || !IsValidMember(member)) {
        MsgBusMsg refused(MsgBusMsg::kMethodCall);
        refused.SetMsgDestination(selector.GetDestination());
        refused.SetMsgPath(selector.GetPath());
        refused.SetMsgInterface(selector.GetInterface());
        refused.SetMsgName(TextOrEmpty(member));
    }
    return NewImpl(dbus_message_new_method_call(selector.GetDestination().c_str(), selector.GetPath().c_str(),
                                                selector.GetInterface().c_str(), member));
}

MsgBusMsgImpl* NewSignal(const char* path, const char* interface, const char* member) {
    if (!IsValidPath(path) || !IsValidInterface(interface) || !IsValidMember(member)) {
        MsgBusMsg refused(MsgBusMsg::kSignal);
        refused.SetMsgPath(TextOrEmpty(path));
        refused.SetMsgInterface(TextOrEmpty(interface));
        refused.SetMsgName(TextOrEmpty(member));
    }
    return NewImpl(dbus_message_new_signal(path, interface, member));
}

}  // namespace

MsgBusRemoteMethod::MsgBusRemoteMethod(const MsgBusObjectSelector& selector, const char* member)
    : MsgBusMsg(NewCall(selector, selector._valid, member)) {}

MsgBusSignal::MsgBusSignal(const char* path, const char* interface, const char* member)
    : MsgBusMsg(NewSignal(path, interface, member)) {}

}  // namespace zarip::msgbus
