// SPDX-License-Identifier: MIT

#include "zarip/inet/HttpRequestBase.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "inet/BadRequest.h"
#include "inet/MessageText.h"
#include "zarip/inet/HttpParser.h"
#include "zarip/inet/Url.h"

namespace zarip::inet {

namespace {

/// A browser keeps far fewer cookies. The headers of a request have room for 200,000 of them, and each takes
/// at least a hundred bytes of memory.
constexpr std::size_t kMaxCookies = 10000;

std::string MakeUpper(const std::string& name) {
    std::string upper = name;
    ToUpper(upper);
    return upper;
}

void SetValue(std::map<std::string, std::string>& values, std::string name, const std::string& text) {
    const auto [value, isNew] = values.emplace(std::move(name), text);
    if (!isNew) {
        value->second = text;
    }
}

const std::string* FindValue(const std::map<std::string, std::string>& values, const std::string& name) {
    const auto value = values.find(name);
    return value != values.end() ? &value->second : nullptr;
}

}  // namespace

HttpRequestBase::HttpRequestBase() = default;
HttpRequestBase::HttpRequestBase(const HttpRequestBase& other) = default;
HttpRequestBase& HttpRequestBase::operator=(const HttpRequestBase& other) = default;
HttpRequestBase::~HttpRequestBase() = default;

const std::string& HttpRequestBase::GetPath() const {
    return _path;
}

void HttpRequestBase::SetPath(const std::string& path) {
    _path = path;
}

const std::string& HttpRequestBase::GetQueryString() const {
    return _queryString;
}

void HttpRequestBase::SetQueryString(const std::string& query) {
    _queryString = query;
}

void HttpRequestBase::SetHeader(const std::string& name, const std::string& value) {
    StoreRequestHeader(name, value);
}

void HttpRequestBase::StoreRequestHeader(std::string_view name, std::string_view value) {
    const bool isCookie = EqualsIgnoringCase(name, "Cookie");
    if (isCookie && _cookies.size() + static_cast<std::size_t>(std::count(value.begin(), value.end(), ';')) >=
                        kMaxCookies) {
        ThrowBadRequest();
    }
    StoreHeader(name, value);
    if (isCookie) {
        ParseCookies(std::string(value));
    }
}

void HttpRequestBase::ParseCookies(const std::string& text) {
    const std::string_view all = text;
    std::string name;
    std::string value;
    std::size_t begin = 0;
    for (;;) {
        begin = std::min(all.find_first_not_of(" \t", begin), all.size());
        const std::size_t end = std::min(all.find(';', begin), all.size());
        const std::string_view piece = all.substr(begin, end - begin);
        const std::size_t equals = piece.find('=');
        if (equals != std::string_view::npos && equals != 0) {
            name = piece.substr(0, equals);
            value = piece.substr(equals + 1);
            SetCookie(name, value);
        }
        if (end == all.size()) {
            return;
        }
        begin = end + 1;
    }
}

const std::string* HttpRequestBase::GetQueryParameter(const std::string& name) const {
    return FindValue(_queryParameters, MakeUpper(name));
}

void HttpRequestBase::SetQueryParameter(const std::string& name, const std::string& value) {
    SetValue(_queryParameters, MakeUpper(name), value);
}

void HttpRequestBase::RemoveQueryParameter(const std::string& name) {
    _queryParameters.erase(MakeUpper(name));
}

const std::string* HttpRequestBase::GetFormParameter(const std::string& name) const {
    return FindValue(_formParameters, MakeUpper(name));
}

void HttpRequestBase::SetFormParameter(const std::string& name, const std::string& value) {
    SetValue(_formParameters, MakeUpper(name), value);
}

void HttpRequestBase::RemoveFormParameter(const std::string& name) {
    _formParameters.erase(MakeUpper(name));
}

const std::string* HttpRequestBase::GetFormOrQueryParameter(const std::string& name) const {
    const std::string* const value = GetFormParameter(name);
    return value != nullptr ? value : GetQueryParameter(name);
}

const std::string* HttpRequestBase::GetCookie(const std::string& name) const {
    return FindValue(_cookies, name);
}

void HttpRequestBase::SetCookie(const std::string& name, const std::string& value) {
    if (value.empty()) {
        _cookies.erase(name);
    } else {
        SetValue(_cookies, name, value);
    }
}

void HttpRequestBase::SetUrl(const Url& url) {
    const std::string path = Url::Decode(url.GetPath());
    std::string host = url.GetHost();
    if (url.GetPort() != 0) {
        host += ":" + std::to_string(url.GetPort());
    }
    SetHeader("HOST", host);
    SetPath(path);
    SetQueryString(url.GetQuery());
    HttpParser::ParseQuery(*this, url.GetQuery(), false);
}

}  // namespace zarip::inet
