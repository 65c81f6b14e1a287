// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/inet/HttpResponse.h>
#include <zarip/inet/UpnpHeaders.h>
#include <zarip/osa/Export.h>

namespace zarip::inet {

/// An answer to a search of UPnP discovery. A new response has the protocol "HTTP/1.1" and is otherwise the
/// same as a new `HttpResponse`. *One thread at a time*.
class ZARIP_EXPORT UpnpResponse : public HttpResponse, public UpnpHeaders<UpnpResponse> {
public:
    UpnpResponse();
    UpnpResponse(const UpnpResponse& other);
    UpnpResponse& operator=(const UpnpResponse& other);
    ~UpnpResponse() override;
};

}  // namespace zarip::inet
