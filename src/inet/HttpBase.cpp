// SPDX-License-Identifier: MIT

#include "zarip/inet/HttpBase.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "inet/BadRequest.h"
#include "inet/MessageText.h"
#include "zarip/inet/ParserException.h"

namespace zarip::inet {

namespace {

constexpr std::size_t kMaxProtocol = 64;
constexpr std::size_t kMaxHeaderName = 256;
constexpr std::size_t kMaxHeaderValue = 4096;
constexpr std::size_t kMaxBody = 0x100000;

}  // namespace

bool HttpBase::CaseInsensitive::operator()(const std::string& left, const std::string& right) const {
    const std::size_t common = std::min(left.size(), right.size());
    for (std::size_t i = 0; i < common; ++i) {
        const unsigned char l = ToLowerAscii(left[i]);
        const unsigned char r = ToLowerAscii(right[i]);
        if (l != r) {
            return l < r;
        }
    }
    return left.size() < right.size();
}

HttpBase::HttpBase() = default;

HttpBase::HttpBase(const HttpBase& other) = default;
HttpBase& HttpBase::operator=(const HttpBase& other) = default;
HttpBase::~HttpBase() = default;

std::string HttpBase::GetProtocol() const {
    return _protocol;
}

void HttpBase::SetProtocol(const std::string& protocol) {
    if (protocol.size() > kMaxProtocol) {
        throw ParserException("proto exceeds max length");
    }
    _protocol = protocol;
}

void HttpBase::SetHeader(const std::string& name, const std::string& value) {
    StoreHeader(name, value);
}

void HttpBase::StoreHeader(std::string_view name, std::string_view value) {
    if (name.size() > kMaxHeaderName || value.size() > kMaxHeaderValue || HoldsLineEndOrZero(name) ||
        HoldsLineEndOrZero(value)) {
        ThrowBadRequest();
    }
    const auto [header, isNew] = _headers.emplace(name, value);
    if (!isNew) {
        header->second = value;
    }
}

void HttpBase::GetHeaders(const_iterator& begin, const_iterator& end) const {
    begin = _headers.begin();
    end = _headers.end();
}

const std::string* HttpBase::GetHeader(const std::string& name) const {
    const auto header = _headers.find(name);
    return header != _headers.end() ? &header->second : nullptr;
}

void HttpBase::RemoveHeader(const std::string& name) {
    std::string upper = name;
    ToUpper(upper);
    _headers.erase(upper);
}

const char* HttpBase::GetBody() const {
    return _body.empty() ? "" : _body.data();
}

unsigned int HttpBase::GetBodyLength() const {
    return _body.empty() ? 0 : static_cast<unsigned int>(_body.size() - 1);
}

void HttpBase::SetBody(const char* text) {
    StoreBody(text, std::strlen(text));
}

void HttpBase::SetBody(const char* data, unsigned int size) {
    StoreBody(data, size);
}

void HttpBase::SetBody(const std::string& data) {
    StoreBody(data.data(), data.size());
}

void HttpBase::StoreBody(const char* data, std::size_t size) {
    if (size > kMaxBody) {
        throw ParserException("body exceeds max length");
    }
    // The data may be part of the old body.
    std::vector<char> body;
    body.reserve(size + 1);
    body.assign(data, data + size);
    body.push_back('\0');
    _body.swap(body);
}

}  // namespace zarip::inet
