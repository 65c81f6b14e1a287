// SPDX-License-Identifier: MIT

#include "inet/MessageHead.h"

#include "inet/BadRequest.h"
#include "inet/MessageText.h"
#include "zarip/inet/HttpResponseBase.h"

namespace zarip::inet {

void CompleteHead(std::string& head, const HttpBase& message) {
    // A receiver would read whatever follows a line end in the first line as headers or as a second message.
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

std::string MakeStatusLine(const HttpResponseBase& response) {
    std::string line = response.GetProtocol();
    return line.append(" ")
        .append(std::to_string(response.GetCode()))
        .append(" ")
        .append(response.GetCodeText());
}

}  // namespace zarip::inet
