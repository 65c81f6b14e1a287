// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <cstring>
#include <sstream>
#include <string>

#include <zarip/inet/HttpBase.h>
#include <zarip/inet/HttpFormatter.h>
#include <zarip/inet/HttpParser.h>
#include <zarip/inet/ParserException.h>
#include <zarip/inet/Url.h>

#include "Targets.h"

/// What the targets that take messages share.
namespace fuzz {

using zarip::inet::HttpBase;

/// False when the message is refused; anything but a `ParserException` or the text of `Url::Decode` ends the
/// process.
template <class Message>
bool Read(const std::string& text, Message& message) {
    std::istringstream stream(text);
    try {
        stream >> message;
        return true;
    } catch (const zarip::inet::ParserException&) {
    } catch (const char*) {
    }
    return false;
}

template <class Message>
std::string Write(const Message& message) {
    std::ostringstream stream;
    stream << message;
    return stream.str();
}

inline bool FitsLines(const std::string& text) {
    std::size_t begin = 0;
    for (std::size_t end = 0; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
        if (end + 1 - begin > 4094) {
            return false;
        }
    }
    return true;
}

inline void CheckMessage(const HttpBase& message) {
    Check(message.GetProtocol().size() <= 64, "a protocol has 64 characters at the most");
    Check(message.GetBodyLength() <= 0x100000, "a body has 1 MiB at the most");
    Check(message.GetBody()[message.GetBodyLength()] == '\0', "a body is a text too");
    HttpBase::const_iterator header;
    HttpBase::const_iterator end;
    for (message.GetHeaders(header, end); header != end; ++header) {
        const auto& [name, value] = *header;
        Check(!name.empty() && name.size() <= 256 && value.size() <= 4096, "headers keep their limits");
        Check((name + value).find_first_of(std::string("\r\n\0", 3)) == std::string::npos,
              "a header is one line");
        Check(message.GetHeader(name) == &value, "a header is found");
    }
}

/// Whether a name begins or ends with white space, as a line without a colon may. Written with its colon it
/// is refused, because other programs may take it for the name without the white space.
inline bool HasBlankName(const HttpBase& message) {
    HttpBase::const_iterator header;
    HttpBase::const_iterator end;
    for (message.GetHeaders(header, end); header != end; ++header) {
        const std::string& name = header->first;
        if (std::strchr(" \t\v\f", name.front()) != nullptr ||
            std::strchr(" \t\v\f", name.back()) != nullptr) {
            return true;
        }
    }
    return false;
}

inline void CheckAgain(bool isRead, const std::string& first, const std::string& second) {
    Check(isRead, "what was written can be read");
    Check(first == second, "what was written and read is the same");
}

template <class Message>
void CheckRequestAgain(const Message& request) {
    // A path is written as it stands, so it is encoded first; an empty one would leave no target.
    if (request.GetPath().empty() || HasBlankName(request)) {
        return;
    }
    Message encoded(request);
    encoded.SetPath(zarip::inet::Url::Encode(request.GetPath()));
    const std::string text = Write(encoded);
    if (!FitsLines(text.substr(0, text.size() - request.GetBodyLength()))) {
        return;
    }
    Message again;
    const bool isRead = Read(text, again);
    Check(again.GetPath() == request.GetPath(), "the path is the same");
    again.SetPath(encoded.GetPath());
    CheckAgain(isRead, text, Write(again));
}

template <class Message>
void CheckResponseAgain(const Message& response) {
    if (HasBlankName(response)) {
        return;
    }
    std::string text;
    try {
        text = Write(response);
    } catch (const zarip::inet::ParserException&) {
        return;  // a first line that was read with a carriage return within it is not written
    }
    if (!FitsLines(text.substr(0, text.size() - response.GetBodyLength()))) {
        return;
    }
    Message again;
    const bool isRead = Read(text, again);
    CheckAgain(isRead, text, Write(again));
}

}  // namespace fuzz
