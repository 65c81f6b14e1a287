// SPDX-License-Identifier: MIT

#include "zarip/inet/HttpFormatter.h"

#include <ostream>
#include <string>

#include "inet/MessageHead.h"
#include "zarip/inet/HttpRequestBase.h"
#include "zarip/inet/HttpResponseBase.h"

namespace zarip::inet {

namespace {

/// Writes the head in one piece and the body in another, because each piece may be a packet on a socket
/// stream.
void WriteAnswer(std::ostream& out, std::string head, const HttpBase& message) {
    CompleteHead(head, message);
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
    WriteAnswer(out, MakeStatusLine(response), response);
}

void HttpFormatter::Format(std::ostream& out, const HttpRequestBase& request) const {
    WriteAnswer(out, request.GetMethodName() + " " + request.GetPath() + " " + request.GetProtocol(),
                request);
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
