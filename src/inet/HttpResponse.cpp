// SPDX-License-Identifier: MIT

#include "zarip/inet/HttpResponse.h"

namespace zarip::inet {

namespace {

struct CodeRow {
    int code;
    const char* text;
};

constexpr CodeRow kCodes[] = {
    {100, "Continue"},
    {101, "Switching Protocols"},
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {203, "Non-Authoritative Information"},
    {204, "No Content"},
    {205, "Reset Content"},
    {206, "Partial Content"},
    {300, "Multiple Choices"},
    {301, "Moved Permanently"},
    {302, "Found"},
    {303, "See Other"},
    {304, "Not Modified"},
    {305, "Use Proxy"},
    {307, "Temporary Redirect"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {402, "Payment Required"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {406, "Not Acceptable"},
    {407, "Proxy Authentication Required"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {410, "Gone"},
    {411, "Length Required"},
    {412, "Precondition Failed"},
    {413, "Request Entity Too Large"},
    {414, "Request-URI Too Long"},
    {415, "Unsupported Media Type"},
    {416, "Requested Range Not Satisfiable"},
    {417, "Expectation Failed"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
    {505, "HTTP Version Not Supported"},
};

}  // namespace

HttpResponse::HttpResponse() = default;
HttpResponse::HttpResponse(const HttpResponse& other) = default;
HttpResponse& HttpResponse::operator=(const HttpResponse& other) = default;
HttpResponse::~HttpResponse() = default;

void HttpResponse::SetCode(int code) {
    _code = code;
}

int HttpResponse::GetCode() const {
    return _code;
}

std::string HttpResponse::GetCodeText() const {
    for (const CodeRow& row : kCodes) {
        if (row.code == _code) {
            return row.text;
        }
    }
    return "Unknown";
}

}  // namespace zarip::inet
