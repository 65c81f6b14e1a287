// SPDX-License-Identifier: MIT

#include "zarip/inet/HttpRequest.h"

#include "inet/MessageText.h"

namespace zarip::inet {

namespace {

struct MethodRow {
    const char* name;
    HttpRequest::Method method;
};

constexpr MethodRow kMethods[] = {
    {"GET", HttpRequest::HGET},       {"POST", HttpRequest::POST},        {"HEAD", HttpRequest::HEAD},
    {"PUT", HttpRequest::HPUT},       {"TRACE", HttpRequest::TRCE},       {"DELETE", HttpRequest::DELE},
    {"OPTIONS", HttpRequest::OPTS},   {"CONNECT", HttpRequest::CONN},     {"PATCH", HttpRequest::PATC},
    {"SUBSCRIBE", HttpRequest::SUBS}, {"UNSUBSCRIBE", HttpRequest::UNSU},
};

}  // namespace

HttpRequest::HttpRequest() = default;
HttpRequest::HttpRequest(const HttpRequest& other) = default;
HttpRequest& HttpRequest::operator=(const HttpRequest& other) = default;
HttpRequest::~HttpRequest() = default;

std::string HttpRequest::GetMethodName() const {
    return _method == UNKW ? _unknownMethodName : GetNameForMethod(static_cast<Method>(_method));
}

void HttpRequest::SetMethodName(const std::string& name) {
    const Method method = GetMethodByName(name);
    if (method == UNKW) {
        _unknownMethodName = name;
    }
    _method = method;
}

unsigned int HttpRequest::GetMethod() const {
    return _method;
}

void HttpRequest::SetMethod(unsigned int method) {
    _method = method;
}

HttpRequest::Method HttpRequest::GetMethodByName(const std::string& name) {
    for (const MethodRow& row : kMethods) {
        if (EqualsIgnoringCase(name, row.name)) {
            return row.method;
        }
    }
    return UNKW;
}

std::string HttpRequest::GetNameForMethod(Method method) {
    for (const MethodRow& row : kMethods) {
        if (row.method == method) {
            return row.name;
        }
    }
    return "UNKNOWN";
}

}  // namespace zarip::inet
