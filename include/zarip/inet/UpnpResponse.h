#pragma once

#include <string>

#include <zarip/inet/HttpResponse.h>
#include <zarip/osa/Export.h>

namespace zarip::inet {

/// An answer to a search of UPnP discovery. A new one has the protocol "HTTP/1.1", otherwise what a new
/// `HttpResponse` has. Getters and setters are as in `UpnpRequest`. *One thread at a time*.
class ZARIP_EXPORT UpnpResponse : public HttpResponse {
public:
    UpnpResponse();
    UpnpResponse(const UpnpResponse& other);
    UpnpResponse& operator=(const UpnpResponse& other);
    ~UpnpResponse() override;

    const std::string* GetST() const;
    void SetST(const char* value);
    const std::string* GetUSN() const;
    void SetUSN(const char* value);
    const std::string* GetLocation() const;
    void SetLocation(const char* value);

    /// The header "CACHE-CONTROL"; spelt so deliberately, as in `UpnpRequest`.
    const std::string* GetCatchControl() const;
    void SetCatchControl(const char* value);

    const std::string* GetServer() const;
    void SetServer(const char* value);
};

}  // namespace zarip::inet
