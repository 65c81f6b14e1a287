// SPDX-License-Identifier: MIT

#include "zarip/msgbus/MsgBusMsgArgumentDumper.h"

#include <cajun/json/elements.h>
#include <cajun/json/writer.h>
#include <dbus/dbus.h>

#include "core/TextStream.h"
#include "msgbus/MsgBusMsgImpl.h"
#include "zarip/msgbus/MsgBusMsg.h"

namespace zarip::msgbus {

namespace {

struct TypeRow {
    int code;
    const char* name;
};

constexpr TypeRow kTypes[] = {
    {DBUS_TYPE_BOOLEAN, "boolean"}, {DBUS_TYPE_BYTE, "uint8"},    {DBUS_TYPE_INT16, "int16"},
    {DBUS_TYPE_UINT16, "uint16"},   {DBUS_TYPE_INT32, "int32"},   {DBUS_TYPE_UINT32, "uint32"},
    {DBUS_TYPE_INT64, "int64"},     {DBUS_TYPE_UINT64, "uint64"}, {DBUS_TYPE_DOUBLE, "double"},
    {DBUS_TYPE_STRING, "string"},
};

std::string TypeName(int code) {
    for (const auto& row : kTypes) {
        if (row.code == code) {
            return row.name;
        }
    }
    return "unknown(" + std::to_string(code) + ")";
}

json::UnknownElement BasicValue(DBusMessageIter& position) {
    DBusBasicValue value{};
    const int code = dbus_message_iter_get_arg_type(&position);
    if (dbus_type_is_basic(code) == FALSE || code == DBUS_TYPE_UNIX_FD) {
        return json::Null();
    }
    dbus_message_iter_get_basic(&position, &value);
    switch (code) {
        case DBUS_TYPE_BOOLEAN:
            return json::Boolean(value.bool_val != FALSE);
        case DBUS_TYPE_BYTE:
            return json::Number(value.byt);
        case DBUS_TYPE_INT16:
            return json::Number(value.i16);
        case DBUS_TYPE_UINT16:
            return json::Number(value.u16);
        case DBUS_TYPE_INT32:
            return json::Number(value.i32);
        case DBUS_TYPE_UINT32:
            return json::Number(value.u32);
        case DBUS_TYPE_INT64:
            return json::Number(static_cast<double>(value.i64));
        case DBUS_TYPE_UINT64:
            return json::Number(static_cast<double>(value.u64));
        case DBUS_TYPE_DOUBLE:
            return json::Number(value.dbl);
        case DBUS_TYPE_STRING:
            return json::String(value.str);
        default:
            return json::Null();
    }
}

json::UnknownElement ArrayValue(DBusMessageIter& position) {
    json::Array elements;
    DBusMessageIter inner;
    dbus_message_iter_recurse(&position, &inner);
    for (; dbus_message_iter_get_arg_type(&inner) != DBUS_TYPE_INVALID; dbus_message_iter_next(&inner)) {
        elements.Insert(BasicValue(inner));
    }
    return elements;
}

}  // namespace

struct ZARIP_HIDDEN MsgBusMsgArgumentDumper::Impl {
    explicit Impl(DBusMessage* dumpedMessage) : message(dbus_message_ref(dumpedMessage)) {
        dbus_message_iter_init(message, &first);
    }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    ~Impl() { dbus_message_unref(message); }

    DBusMessage* message;
    DBusMessageIter first{};
};

MsgBusMsgArgumentDumper::MsgBusMsgArgumentDumper(const MsgBusMsg& message)
    : _impl(std::make_unique<Impl>(message._impl->Get())) {}

MsgBusMsgArgumentDumper::~MsgBusMsgArgumentDumper() = default;

std::string MsgBusMsgArgumentDumper::AsJson(bool withTypes) {
    json::Array arguments;
    DBusMessageIter position = _impl->first;
    for (;; dbus_message_iter_next(&position)) {
        const int code = dbus_message_iter_get_arg_type(&position);
        if (code == DBUS_TYPE_INVALID) {
            break;
        }
        const bool isArray = code == DBUS_TYPE_ARRAY;
        json::UnknownElement value = isArray ? ArrayValue(position) : BasicValue(position);
        if (withTypes) {
            json::Object typed;
            typed["type"] =
                json::String(TypeName(isArray ? dbus_message_iter_get_element_type(&position) : code));
            typed["value"] = value;
            arguments.Insert(typed);
        } else {
            arguments.Insert(value);
        }
    }
    core::OutputText text;
    json::Writer::Write(arguments, text, false);
    return text.str();
}

}  // namespace zarip::msgbus
