// SPDX-License-Identifier: MIT

#include "cutil/url.h"

#include <climits>
#include <cstdlib>
#include <string_view>

namespace zarip::cutil {

namespace {

using Text = std::string_view;

constexpr bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

constexpr bool IsLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

struct Parts {
    Text scheme, user, password, host, port, path, query;  // a null pointer means that the part is absent
};

bool IsScheme(Text text) {
    if (text.empty() || !IsLetter(text[0])) {
        return false;
    }
    for (const char c : text) {
        if (!IsLetter(c) && !IsDigit(c) && c != '+' && c != '-' && c != '.') {
            return false;
        }
    }
    return true;
}

/// Splits host and port. A host in brackets may contain colons.
bool SplitHost(Text text, Parts& parts) {
    std::size_t end = 0;
    if (text[0] == '[') {
        end = text.find(']');
        if (end == Text::npos || end == 1) {
            return false;
        }
        ++end;
    } else {
        end = text.substr(0, text.find(':')).size();
    }
    parts.host = text.substr(0, end);
    text.remove_prefix(end);
    if (!text.empty()) {
        if (text[0] != ':') {
            return false;
        }
        parts.port = text.substr(1);
    }
    return !parts.host.empty() && parts.port.find_first_of(":[]") == Text::npos &&
           parts.host.find('[', 1) == Text::npos &&
           (parts.host[0] == '[' || parts.host.find(']') == Text::npos);
}

bool SplitAuthority(Text text, Parts& parts) {
    const std::size_t at = text.rfind('@');
    if (at != Text::npos) {
        const Text login = text.substr(0, at);
        const std::size_t colon = login.find(':');
        parts.user = login.substr(0, colon);
        if (parts.user.empty()) {
            return false;
        }
        if (colon != Text::npos) {
            parts.password = login.substr(colon + 1);
        }
        text.remove_prefix(at + 1);
    }
    return !text.empty() && SplitHost(text, parts);
}

bool Split(Text text, Parts& parts) {
    for (const char c : text) {
        if (static_cast<unsigned char>(c) <= ' ' || c == '\x7F') {
            return false;
        }
    }
    text = text.substr(0, text.find('#'));
    const std::size_t question = text.find('?');
    if (question != Text::npos) {
        parts.query = text.substr(question + 1);
        text = text.substr(0, question);
    }
    const std::size_t separator = text.find("://");
    if (separator != Text::npos && separator < text.find('/')) {
        parts.scheme = text.substr(0, separator);
        if (!IsScheme(parts.scheme)) {
            return false;
        }
        text.remove_prefix(separator + 3);
    }
    const std::size_t slash = text.find('/');
    if (slash != Text::npos) {
        parts.path = text.substr(slash);
        text = text.substr(0, slash);
    }
    if (text.empty()) {
        return !parts.path.empty() || (parts.scheme.empty() && !parts.query.empty());
    }
    return SplitAuthority(text, parts);
}

}  // namespace

url_t* url_alloc(const char* text) {
    Parts parts;
    if (!Split(text, parts)) {
        return nullptr;
    }
    auto* const url = static_cast<url_t*>(std::calloc(1, sizeof(url_t)));
    // The zero byte after each part takes the place of a separator, and the last part needs one more.
    char* out = url != nullptr ? static_cast<char*>(std::malloc(Text(text).size() + 8)) : nullptr;
    if (out == nullptr) {
        std::free(url);
        return nullptr;
    }
    url->storage = out;
    const auto store = [&out](Text part) -> const char* {
        if (part.data() == nullptr) {
            return nullptr;
        }
        const char* const begin = out;
        out += part.copy(out, part.size());
        *out++ = '\0';
        return begin;
    };
    url->scheme = store(parts.scheme);
    url->user = store(parts.user);
    url->password = store(parts.password);
    url->host = store(parts.host);
    url->port = store(parts.port);
    url->path = store(parts.path);
    url->query = store(parts.query);
    return url;
}

void url_free(url_t* url) {
    if (url != nullptr) {
        std::free(url->storage);
        std::free(url);
    }
}

int url_encode(const char* in, std::size_t inLength, char* out, std::size_t outSize) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::size_t length = 0;
    for (std::size_t i = 0; i < inLength; ++i) {
        const char c = in[i];
        const bool plain = IsLetter(c) || IsDigit(c) || c == '-' || c == '.' || c == '_' || c == '~';
        if (outSize - length <= (plain ? 1U : 3U) || length > INT_MAX - 3) {
            return -1;
        }
        if (plain) {
            out[length++] = c;
        } else {
            out[length++] = '%';
            out[length++] = kDigits[static_cast<unsigned char>(c) >> 4U];
            out[length++] = kDigits[static_cast<unsigned char>(c) & 0xFU];
        }
    }
    if (outSize == 0) {
        return -1;
    }
    out[length] = '\0';
    return static_cast<int>(length);
}

int url_decode(const char* in, std::size_t inLength, char* out, std::size_t outSize) {
    std::size_t length = 0;
    for (std::size_t i = 0; i < inLength; ++i) {
        if (outSize - length <= 1 || length == INT_MAX) {
            return -1;
        }
        char c = in[i];
        if (c == '%') {
            const int byte = inLength - i > 2 ? url_byte(in[i + 1], in[i + 2]) : -1;
            if (byte < 0) {
                return -1;
            }
            c = static_cast<char>(byte);
            i += 2;
        }
        out[length++] = c;
    }
    if (outSize == 0) {
        return -1;
    }
    out[length] = '\0';
    return static_cast<int>(length);
}

}  // namespace zarip::cutil
