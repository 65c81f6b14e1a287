#include "zarip/inet/HttpFormatter.h"

#include <ostream>
#include <string>

#include "zarip/inet/HttpRequestBase.h"
#include "zarip/inet/HttpResponseBase.h"

namespace zarip::inet {

namespace {

/// The head in one piece and the body in another: each piece may cost a stream on a socket a packet.
void Write(std::ostream& out, std::string head, const HttpBase& message) {
    HttpBase::const_iterator header;
    HttpBase::const_iterator end;
    for (message.GetHeaders(header, end); header != end; ++header) {
        head.append(header->first).append(": ").append(header->second).append("\r\n");
    }
    head += "\r\n";
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
    Write(out,
          response.GetProtocol() + " " + std::to_string(response.GetCode()) + " " + response.GetCodeText() +
              "\r\n",
          response);
}

void HttpFormatter::Format(std::ostream& out, const HttpRequestBase& request) const {
    Write(out, request.GetMethodName() + " " + request.GetPath() + " " + request.GetProtocol() + "\r\n",
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
