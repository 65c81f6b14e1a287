// SPDX-License-Identifier: MIT

#include "zarip/inet/HttpFormatter.h"

#include <ostream>
#include <string>

#include "inet/BadRequest.h"
#include "inet/MessageHead.h"
#include "inet/Text.h"
#include "zarip/inet/HttpRequestBase.h"
#include "zarip/inet/HttpResponseBase.h"

namespace zarip::inet {

void FinishHead(std::string& head, const HttpBase& message) {
    // A line end in the first line would make headers, or a second message, of what follows it.
    if (HoldsLineEndOrZero(head)) {
        ThrowBadRequest();
    }
    head += "\r\n";
    HttpBase::const_iterator header;
    HttpBase::const_iterator end;
    for (message.GetHeaders(header, end); header != end; ++header) {
        head.append(header->first).append(": ").append(header->second).append("\r\n");
    }
    head += "\r\n";
}

std::string StatusLine(const HttpResponseBase& response) {
    std::string line = response.GetProtocol();
    return line.append(" ")
        .append(std::to_string(response.GetCode()))
        .append(" ")
        .append(response.GetCodeText());
}

namespace {

/// The head in one piece and the body in another: each piece may cost a stream on a socket a packet.
void Write(std::ostream& out, std::string head, const HttpBase& message) {
    FinishHead(head, message);
    out.write(head.data(), static_cast<std::streamsize>(head.size()));
    if (message.GetBodyLength() != 0) {
        out.write(message.GetBody(), static_cast<std::streamsize>(message.GetBodyLength()));
    }
}

}  // namespace

HttpFormatter::HttpFormatter() = default;
HttpFormatter::HttpFormatter(const HttpFormatter& other) = default;
HttpFormatter& HttpFormatter::operator=(const HttpFormatter& other) = default;
HttpFormatter::~HttpFormatter() = default;

void HttpFormatter::Format(std::ostream& out, const HttpResponseBase& response) const {
    Write(out, StatusLine(response), response);
}

void HttpFormatter::Format(std::ostream& out, const HttpRequestBase& request) const {
    Write(out, request.GetMethodName() + " " + request.GetPath() + " " + request.GetProtocol(), request);
}

std::ostream& operator<<(std::ostream& out, const HttpRequestBase& request) {
    HttpFormatter().Format(out, request);
    return out;
}

std::ostream& operator<<(std::ostream& out, const HttpResponseBase& response) {
    HttpFormatter().Format(out, response);
    return out;
}

}  // namespace zarip::inet
