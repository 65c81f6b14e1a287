// SPDX-License-Identifier: MIT

#include "zarip/inet/UpnpResponse.h"

namespace zarip::inet {

UpnpResponse::UpnpResponse() {
    SetProtocol("HTTP/1.1");
}

UpnpResponse::UpnpResponse(const UpnpResponse& other) = default;
UpnpResponse& UpnpResponse::operator=(const UpnpResponse& other) = default;
UpnpResponse::~UpnpResponse() = default;

}  // namespace zarip::inet
