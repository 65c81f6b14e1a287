// SPDX-License-Identifier: MIT

#include "zarip/inet/HttpResponseBase.h"

namespace zarip::inet {

HttpResponseBase::HttpResponseBase() = default;
HttpResponseBase::HttpResponseBase(const HttpResponseBase& other) = default;
HttpResponseBase& HttpResponseBase::operator=(const HttpResponseBase& other) = default;
HttpResponseBase::~HttpResponseBase() = default;

void HttpResponseBase::SetBody(const char* text) {
    HttpBase::SetBody(text);
    SetContentLength();
}

void HttpResponseBase::SetBody(const char* data, unsigned int size) {
    HttpBase::SetBody(data, size);
    SetContentLength();
}

void HttpResponseBase::SetBody(const std::string& data) {
    HttpBase::SetBody(data);
    SetContentLength();
}

void HttpResponseBase::SetContentLength() {
    SetHeader("Content-Length", std::to_string(GetBodyLength()));
}

}  // namespace zarip::inet
