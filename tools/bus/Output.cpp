// SPDX-License-Identifier: MIT

#include "Output.h"

#include <dbus/dbus.h>

#include <charconv>
#include <cmath>
#include <cstdio>

#include "Failure.h"

namespace bus {

namespace {

/// Formats a byte with two digits.
std::string Escape(const char* begin, unsigned char byte) {
    constexpr char kDigits[] = "0123456789abcdef";
    return std::string(begin) + kDigits[byte >> 4] + kDigits[byte & 15];
}

std::string EscapeControl(unsigned char character) {
    switch (character) {
        case '\n':
            return "\\n";
        case '\r':
            return "\\r";
        case '\t':
            return "\\t";
        default:
            return Escape("\\u00", character);
    }
}

/// @param isJson  whether the quote and the backslash are escaped, too.
std::string EscapeText(const std::string& text, bool isJson) {
    const bool isUtf8 = dbus_validate_utf8(text.c_str(), nullptr) != FALSE;
    std::string escaped;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte < 0x20 || byte == 0x7f) {
            escaped += EscapeControl(byte);
        } else if (byte >= 0x80 && !isUtf8) {
            escaped += Escape("\\x", byte);
        } else if (byte == 0xc2 && static_cast<unsigned char>(text[i + 1]) < 0xa0) {
            // U+0080 to U+009F are control characters. For example, U+009B means the same to a terminal as an
            // escape with a bracket.
            escaped += EscapeControl(static_cast<unsigned char>(text[++i]));
        } else {
            escaped += isJson && (byte == '"' || byte == '\\') ? "\\" : "";
            escaped += text[i];
        }
    }
    return escaped;
}

std::string ValueAsJson(DBusMessageIter& position);

/// Formats the values of a container as JSON, one string for each.
Strings ElementsOf(DBusMessageIter& container) {
    Strings elements;
    DBusMessageIter inner;
    dbus_message_iter_recurse(&container, &inner);
    for (; dbus_message_iter_get_arg_type(&inner) != DBUS_TYPE_INVALID; dbus_message_iter_next(&inner)) {
        elements.push_back(ValueAsJson(inner));
    }
    return elements;
}

/// Formats a JSON object. Its keys become strings, whatever type they have on the bus.
std::string DictionaryAsJson(DBusMessageIter& container) {
    std::string members;
    DBusMessageIter entry;
    dbus_message_iter_recurse(&container, &entry);
    for (; dbus_message_iter_get_arg_type(&entry) != DBUS_TYPE_INVALID; dbus_message_iter_next(&entry)) {
        const Strings pair = ElementsOf(entry);
        members += members.empty() ? "" : ",";
        members += (pair[0][0] == '"' ? pair[0] : "\"" + pair[0] + "\"") + ":" + pair[1];
    }
    return "{" + members + "}";
}

std::string NumberAsJson(double number) {
    return std::isfinite(number) ? Shortest(number) : "\"" + Shortest(number) + "\"";
}

std::string BasicAsJson(DBusMessageIter& position, int type) {
    DBusBasicValue value{};
    dbus_message_iter_get_basic(&position, &value);
    switch (type) {
        case DBUS_TYPE_BOOLEAN:
            return value.bool_val != FALSE ? "true" : "false";
        case DBUS_TYPE_BYTE:
            return std::to_string(value.byt);
        case DBUS_TYPE_INT16:
            return std::to_string(value.i16);
        case DBUS_TYPE_UINT16:
            return std::to_string(value.u16);
        case DBUS_TYPE_INT32:
            return std::to_string(value.i32);
        case DBUS_TYPE_UINT32:
            return std::to_string(value.u32);
        case DBUS_TYPE_INT64:
            return std::to_string(value.i64);
        case DBUS_TYPE_UINT64:
            return std::to_string(value.u64);
        case DBUS_TYPE_DOUBLE:
            return NumberAsJson(value.dbl);
        default:  // a string, an object path or a signature
            return JsonString(value.str);
    }
}

std::string ValueAsJson(DBusMessageIter& position) {
    const int type = dbus_message_iter_get_arg_type(&position);
    if (type == DBUS_TYPE_VARIANT) {
        return ElementsOf(position)[0];
    }
    if (type == DBUS_TYPE_ARRAY && dbus_message_iter_get_element_type(&position) == DBUS_TYPE_DICT_ENTRY) {
        return DictionaryAsJson(position);
    }
    if (dbus_type_is_container(type) != FALSE) {
        return JsonArray(ElementsOf(position));
    }
    // The value is not read, because reading a descriptor duplicates it.
    return type == DBUS_TYPE_UNIX_FD ? "null" : BasicAsJson(position, type);
}

template <class Convert>
Strings Arguments(DBusMessage* message, Convert convert) {
    Strings arguments;
    DBusMessageIter position;
    if (dbus_message_iter_init(message, &position) != FALSE) {
        do {
            arguments.push_back(convert(position));
        } while (dbus_message_iter_next(&position) != FALSE);
    }
    return arguments;
}

}  // namespace

std::string Printable(const std::string& text) {
    return EscapeText(text, false);
}

void Print(const std::string& line) {
    const std::string text = Printable(line) + "\n";
    std::fwrite(text.data(), 1, text.size(), stdout);
}

void Complain(const std::string& line) {
    std::fprintf(stderr, "zarip-bus: %s\n", Printable(line).c_str());
}

void Flush() {
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        throw Failure(kFailed, "the output could not be written");
    }
}

std::string Shortest(double number) {
    char text[32];
    return {text, std::to_chars(text, text + sizeof text, number).ptr};
}

std::string JsonString(const std::string& text) {
    return "\"" + EscapeText(text, true) + "\"";
}

std::string JsonArray(const Strings& elements) {
    std::string array;
    for (const std::string& element : elements) {
        array += (array.empty() ? "" : ",") + element;
    }
    return "[" + array + "]";
}

void JsonObject::Add(const char* name, const std::string& json) {
    _members += (_members.empty() ? "\"" : ",\"") + std::string(name) + "\":" + json;
}

std::string ArgumentsAsJson(DBusMessage* message) {
    return JsonArray(Arguments(message, ValueAsJson));
}

Strings ArgumentsAsText(DBusMessage* message) {
    return Arguments(message, [](DBusMessageIter& position) -> std::string {
        if (dbus_message_iter_get_arg_type(&position) != DBUS_TYPE_STRING) {
            return ValueAsJson(position);
        }
        const char* text = nullptr;
        dbus_message_iter_get_basic(&position, &text);
        return text;
    });
}

}  // namespace bus
