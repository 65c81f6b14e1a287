// SPDX-License-Identifier: MIT

#include "zarip/inet/Url.h"

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "cutil/url.h"
#include "inet/Address.h"
#include "inet/UrlText.h"

namespace zarip::inet {

Url::Url() = default;
Url::Url(const Url& other) = default;
Url& Url::operator=(const Url& other) = default;
Url::~Url() = default;

Url::Url(const std::string& text) {
    struct Free {
        void operator()(cutil::url_t* url) const { cutil::url_free(url); }
    };
    // A string with a zero byte is not a URL, because the part after that byte would be ignored.
    const bool whole = std::strlen(text.c_str()) == text.size();
    const std::unique_ptr<cutil::url_t, Free> url(whole ? cutil::url_alloc(text.c_str()) : nullptr);
    if (!url) {
        throw std::invalid_argument("Invalid uri: " + text);
    }
    const auto copy = [](const char* part, std::string& out) {
        if (part != nullptr) {
            out = part;
        }
    };
    copy(url->scheme, _scheme);
    copy(url->user, _user);
    copy(url->password, _password);
    copy(url->host, _host);
    copy(url->path, _path);
    copy(url->query, _query);
    if (url->port != nullptr) {
        _port = ParsePort(url->port);
    }
}

void Url::swap(Url& other) {
    _scheme.swap(other._scheme);
    _user.swap(other._user);
    _password.swap(other._password);
    _host.swap(other._host);
    std::swap(_port, other._port);
    _path.swap(other._path);
    _query.swap(other._query);
}

std::string Url::ToString() const {
    std::string text;
    if (!_scheme.empty()) {
        text += _scheme + "://";
    }
    if (!_user.empty()) {
        text += _user;
        if (!_password.empty()) {
            text += ":" + _password;
        }
        text += '@';
    }
    text += _host;
    if (_port != 0) {
        text += ":" + std::to_string(_port);
    }
    text += _path;
    if (!_query.empty()) {
        text += "?" + _query;
    }
    return text;
}

void Url::GetIpAddr(_ipaddr_t& out) const {
    const std::size_t begin = _host.find('[');
    out.port = _port;
    if (begin == std::string::npos) {
        SetAddressTexts(_host, "", out);
        return;
    }
    const std::string_view inner = std::string_view(_host).substr(begin + 1);
    const std::size_t end = inner.rfind(']');
    SetAddressTexts("", inner.substr(0, end), out);
    if (end != std::string_view::npos && inner.substr(end + 1, 1) == ":") {
        out.port = ParsePort(inner.substr(end + 2));
    }
}

std::string Url::Encode(const std::string& text) {
    std::string encoded(text.size() * 3 + 1, '\0');
    const int length = cutil::url_encode(text.data(), text.size(), encoded.data(), encoded.size());
    if (length < 0) {
        throw "url_encode() failed";
    }
    encoded.resize(static_cast<std::size_t>(length));
    return encoded;
}

std::string Url::Decode(const std::string& text) {
    std::string decoded = text;
    DecodeUrl(decoded);
    return decoded;
}

}  // namespace zarip::inet
