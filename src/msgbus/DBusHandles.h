// SPDX-License-Identifier: MIT

#pragma once

#include <dbus/dbus.h>

#include <string>
#include <string_view>
#include <utility>

namespace zarip::msgbus {

/// A libdbus error record, which the destructor frees.
class DBusErrorRecord {
public:
    DBusErrorRecord() { dbus_error_init(&_error); }
    DBusErrorRecord(const DBusErrorRecord&) = delete;
    DBusErrorRecord& operator=(const DBusErrorRecord&) = delete;
    ~DBusErrorRecord() { dbus_error_free(&_error); }

    DBusError* Get() { return &_error; }
    bool IsSet() const { return dbus_error_is_set(&_error) != FALSE; }
    std::string GetMessage() const { return _error.message != nullptr ? _error.message : ""; }
    const char* GetName() const { return _error.name != nullptr ? _error.name : ""; }

private:
    DBusError _error{};
};

/// A counted reference to a message, or null.
class MessageRef {
public:
    MessageRef() = default;
    MessageRef(MessageRef&& other) noexcept : _message(std::exchange(other._message, nullptr)) {}
    MessageRef& operator=(MessageRef&& other) noexcept {
        std::swap(_message, other._message);
        return *this;
    }
    ~MessageRef() {
        if (_message != nullptr) {
            dbus_message_unref(_message);
        }
    }

    /// Takes over a reference of the caller, which may be null.
    static MessageRef Adopt(DBusMessage* message) { return MessageRef(message); }

    /// Adds a reference.
    static MessageRef Share(DBusMessage* message) { return MessageRef(dbus_message_ref(message)); }

    DBusMessage* Get() const { return _message; }
    explicit operator bool() const { return _message != nullptr; }

    /// The caller owns the reference from now on.
    DBusMessage* Release() { return std::exchange(_message, nullptr); }

private:
    explicit MessageRef(DBusMessage* message) : _message(message) {}

    DBusMessage* _message = nullptr;
};

/// Converts null, which libdbus returns for a field that a message does not have, to an empty string.
inline const char* TextOf(const char* field) {
    return field != nullptr ? field : "";
}

inline std::string_view ViewOf(const char* field) {
    return field != nullptr ? field : std::string_view();
}

}  // namespace zarip::msgbus
