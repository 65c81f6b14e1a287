// SPDX-License-Identifier: MIT

#include "zarip/msgbus/MsgBusMsgArgumentReader.h"

#include <dbus/dbus.h>

#include "msgbus/MsgBusMsgImpl.h"
#include "zarip/msgbus/MsgBusMsg.h"
#include "zarip/osa/Exception.h"

namespace zarip::msgbus {

struct MsgBusMsgArgumentReader::State {
    explicit State(DBusMessage* readMessage) : message(dbus_message_ref(readMessage)) {
        dbus_message_iter_init(message, &position);
    }
    State(const State& other) : message(dbus_message_ref(other.message)), position(other.position) {}
    State& operator=(const State&) = delete;
    ~State() { dbus_message_unref(message); }

    DBusMessage* message;  // kept, since the position points into it
    DBusMessageIter position{};
};

namespace {

void CheckType(int found, int expected) {
    if (found == expected) {
        return;
    }
    if (found == DBUS_TYPE_INVALID) {
        throw osa::Exception("MsgBusMsg argument missing (expected type '%c')", expected);
    }
    throw osa::Exception("MsgBusMsg argument mismatch (expected type '%c' but found type '%c')", expected,
                         found);
}

template <class T>
void ReadBasic(DBusMessageIter& position, int type, T& value) {
    CheckType(dbus_message_iter_get_arg_type(&position), type);
    dbus_message_iter_get_basic(&position, &value);
    dbus_message_iter_next(&position);
}

/// The elements of the array at the position.
DBusMessageIter EnterArray(DBusMessageIter& position, int elementType) {
    CheckType(dbus_message_iter_get_arg_type(&position), DBUS_TYPE_ARRAY);
    CheckType(dbus_message_iter_get_element_type(&position), elementType);
    DBusMessageIter elements;
    dbus_message_iter_recurse(&position, &elements);
    return elements;
}

/// Calls `store(begin, end)` with the elements of a fixed array, then advances.
template <class T, class Store>
void ReadArray(DBusMessageIter& position, int elementType, Store store) {
    DBusMessageIter elements = EnterArray(position, elementType);
    const T* data = nullptr;
    int count = 0;
    dbus_message_iter_get_fixed_array(&elements, &data, &count);
    store(data, data + count);
    dbus_message_iter_next(&position);
}

template <class T>
void ReadVector(DBusMessageIter& position, int elementType, std::vector<T>& value) {
    ReadArray<T>(position, elementType, [&value](const T* begin, const T* end) { value.assign(begin, end); });
}

}  // namespace

MsgBusMsgArgumentReader::MsgBusMsgArgumentReader(const MsgBusMsg& message)
    : _state(std::make_unique<State>(message._impl->Get())) {}

MsgBusMsgArgumentReader::MsgBusMsgArgumentReader(const MsgBusMsgArgumentReader& other)
    : _state(std::make_unique<State>(*other._state)) {}

MsgBusMsgArgumentReader::~MsgBusMsgArgumentReader() = default;

MsgBusMsgArgumentReader& MsgBusMsgArgumentReader::operator>>(bool& value) {
    dbus_bool_t number = FALSE;
    ReadBasic(_state->position, DBUS_TYPE_BOOLEAN, number);
    value = number != FALSE;
    return *this;
}

MsgBusMsgArgumentReader& MsgBusMsgArgumentReader::operator>>(unsigned char& value) {
    ReadBasic(_state->position, DBUS_TYPE_BYTE, value);
    return *this;
}

MsgBusMsgArgumentReader& MsgBusMsgArgumentReader::operator>>(short& value) {
    ReadBasic(_state->position, DBUS_TYPE_INT16, value);
    return *this;
}

MsgBusMsgArgumentReader& MsgBusMsgArgumentReader::operator>>(unsigned short& value) {
    ReadBasic(_state->position, DBUS_TYPE_UINT16, value);
    return *this;
}

MsgBusMsgArgumentReader& MsgBusMsgArgumentReader::operator>>(int& value) {
    ReadBasic(_state->position, DBUS_TYPE_INT32, value);
    return *this;
}

MsgBusMsgArgumentReader& MsgBusMsgArgumentReader::operator>>(unsigned int& value) {
    ReadBasic(_state->position, DBUS_TYPE_UINT32, value);
    return *this;
}

MsgBusMsgArgumentReader& MsgBusMsgArgumentReader::operator>>(long long& value) {
    ReadBasic(_state->position, DBUS_TYPE_INT64, value);
    return *this;
}

MsgBusMsgArgumentReader& MsgBusMsgArgumentReader::operator>>(unsigned long long& value) {
    ReadBasic(_state->position, DBUS_TYPE_UINT64, value);
    return *this;
}

MsgBusMsgArgumentReader& MsgBusMsgArgumentReader::operator>>(double& value) {
    ReadBasic(_state->position, DBUS_TYPE_DOUBLE, value);
    return *this;
}

MsgBusMsgArgumentReader& MsgBusMsgArgumentReader::operator>>(std::string& value) {
    CheckType(dbus_message_iter_get_arg_type(&_state->position), DBUS_TYPE_STRING);
    const char* text = nullptr;
    dbus_message_iter_get_basic(&_state->position, &text);
    value = text;
    dbus_message_iter_next(&_state->position);
    return *this;
}

MsgBusMsgArgumentReader& MsgBusMsgArgumentReader::operator>>(std::deque<bool>& value) {
    ReadArray<dbus_bool_t>(_state->position, DBUS_TYPE_BOOLEAN,
                           [&value](const dbus_bool_t* begin, const dbus_bool_t* end) {
                               value.clear();
                               for (; begin != end; ++begin) {
                                   value.push_back(*begin != FALSE);
                               }
                           });
    return *this;
}

MsgBusMsgArgumentReader& MsgBusMsgArgumentReader::operator>>(std::vector<unsigned char>& value) {
    ReadVector(_state->position, DBUS_TYPE_BYTE, value);
    return *this;
}

MsgBusMsgArgumentReader& MsgBusMsgArgumentReader::operator>>(std::vector<int>& value) {
    ReadVector(_state->position, DBUS_TYPE_INT32, value);
    return *this;
}

MsgBusMsgArgumentReader& MsgBusMsgArgumentReader::operator>>(std::vector<unsigned int>& value) {
    ReadVector(_state->position, DBUS_TYPE_UINT32, value);
    return *this;
}

MsgBusMsgArgumentReader& MsgBusMsgArgumentReader::operator>>(std::vector<double>& value) {
    ReadVector(_state->position, DBUS_TYPE_DOUBLE, value);
    return *this;
}

MsgBusMsgArgumentReader& MsgBusMsgArgumentReader::operator>>(std::vector<std::string>& value) {
    DBusMessageIter elements = EnterArray(_state->position, DBUS_TYPE_STRING);
    std::vector<std::string> read;
    for (; dbus_message_iter_get_arg_type(&elements) == DBUS_TYPE_STRING; dbus_message_iter_next(&elements)) {
        const char* text = nullptr;
        dbus_message_iter_get_basic(&elements, &text);
        read.emplace_back(text);
    }
    value.insert(value.end(), std::make_move_iterator(read.begin()), std::make_move_iterator(read.end()));
    dbus_message_iter_next(&_state->position);
    return *this;
}

}  // namespace zarip::msgbus
