// SPDX-License-Identifier: MIT

#include <string>

#include <zarip/inet/UpnpRequest.h>
#include <zarip/inet/UpnpResponse.h>

#include "Messages.h"
#include "Targets.h"

namespace fuzz {

namespace {

using zarip::inet::UpnpRequest;
using zarip::inet::UpnpResponse;

template <class Message>
void CheckHeaders(const Message& message) {
    CheckMessage(message);
    Check(message.GetST() == message.GetHeader("ST") && message.GetUSN() == message.GetHeader("USN") &&
              message.GetLocation() == message.GetHeader("LOCATION") &&
              message.GetCatchControl() == message.GetHeader("CACHE-CONTROL") &&
              message.GetServer() == message.GetHeader("SERVER"),
          "a getter gives its header");
}

}  // namespace

/// The datagram as a request and as an answer.
FUZZ_TARGET(upnp) {
    UpnpRequest request;
    const bool isRequest = Read(input, request);
    CheckHeaders(request);
    Check(request.GetHost() == request.GetHeader("HOST") && request.GetMX() == request.GetHeader("MX") &&
              request.GetNT() == request.GetHeader("NT") && request.GetNTS() == request.GetHeader("NTS"),
          "a getter of a request gives its header");
    if (isRequest) {
        Check(request.GetMethod() == UpnpRequest::MSER || request.GetMethod() == UpnpRequest::NOTF,
              "other methods are refused");
        CheckRequestAgain(request);
    }

    UpnpResponse response;
    const bool isResponse = Read(input, response);
    CheckHeaders(response);
    if (isResponse) {
        CheckResponseAgain(response);
    }
}

}  // namespace fuzz
