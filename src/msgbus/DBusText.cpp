// SPDX-License-Identifier: MIT

#include "msgbus/DBusText.h"

#include <dbus/dbus.h>

#include <cstdint>
#include <cstring>

namespace zarip::msgbus {

namespace {

constexpr std::size_t kMaxErrorText = std::size_t{64} * 1024;

/// Tests eight bytes at a time. Nearly all strings on the bus are ASCII and need no decoding.
bool IsAscii(const char* text, std::size_t length) {
    constexpr std::uint64_t kHighBits = 0x8080808080808080U;
    std::uint64_t seen = 0;
    std::size_t i = 0;
    for (; i + sizeof(std::uint64_t) <= length; i += sizeof(std::uint64_t)) {
        std::uint64_t block = 0;
        std::memcpy(&block, text + i, sizeof(block));
        seen |= block;
    }
    for (; i < length; ++i) {
        seen |= static_cast<unsigned char>(text[i]);
    }
    return (seen & kHighBits) == 0;
}

/// Returns the length of the UTF-8 sequence at `text`, or 0 if it is not valid. `end` is the end of the text.
std::size_t SequenceLength(const char* text, const char* end) {
    const auto lead = static_cast<unsigned char>(*text);
    std::size_t length = 1;
    if (lead >= 0xF0) {
        length = 4;
    } else if (lead >= 0xE0) {
        length = 3;
    } else if (lead >= 0x80) {
        length = 2;
    }
    if (length > static_cast<std::size_t>(end - text)) {
        return 0;
    }
    const std::string sequence(text, length);
    return dbus_validate_utf8(sequence.c_str(), nullptr) != FALSE ? length : 0;
}

}  // namespace

bool IsValidText(const char* text) {
    return text != nullptr &&
           (IsAscii(text, std::strlen(text)) || dbus_validate_utf8(text, nullptr) != FALSE);
}

std::string ToErrorText(const std::string& text) {
    std::size_t end = std::strlen(text.c_str());
    if (end > kMaxErrorText) {
        end = kMaxErrorText;
        while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) {
            --end;  // not in the middle of a character
        }
    }
    std::string cut = text.substr(0, end);
    if (IsValidText(cut.c_str())) {
        return cut;
    }
    std::string valid;
    const char* const last = cut.c_str() + cut.size();
    for (const char* at = cut.c_str(); at != last;) {
        const std::size_t length = SequenceLength(at, last);
        if (length == 0) {
            valid += '?';
            ++at;
        } else {
            valid.append(at, length);
            at += length;
        }
    }
    return valid;
}

bool IsValidBusName(const char* name) {
    return IsValidText(name) && dbus_validate_bus_name(name, nullptr) != FALSE;
}

bool IsValidPath(const char* path) {
    return IsValidText(path) && dbus_validate_path(path, nullptr) != FALSE;
}

bool IsValidInterface(const char* name) {
    return IsValidText(name) && dbus_validate_interface(name, nullptr) != FALSE;
}

bool IsValidMember(const char* name) {
    return IsValidText(name) && dbus_validate_member(name, nullptr) != FALSE;
}

}  // namespace zarip::msgbus
