// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/inet/HttpRequest.h>
#include <zarip/inet/UpnpHeaders.h>
#include <zarip/osa/Export.h>

namespace zarip::inet {

/// A request of UPnP discovery (SSDP), M-SEARCH or NOTIFY, which is an HTTP request in a datagram. A new
/// request has the method `UNKO`, the protocol "HTTP/1.1", the path "*" and the destination 239.255.255.250,
/// port 1900. `UpnpHeaders` describes the functions for headers. *One thread at a time*.
class ZARIP_EXPORT UpnpRequest : public HttpRequest, public UpnpHeaders<UpnpRequest> {
public:
    /// Each value consists of four characters, the first of them in the lowest byte.
    enum UpnpMethod : unsigned int {
        MSER = 0x5245534D,  ///< M-SEARCH
        NOTF = 0x46544F4E,  ///< NOTIFY
        UNKO = 0x4F4B4E55,
    };

    UpnpRequest();
    UpnpRequest(const UpnpRequest& other);
    using HttpRequest::operator=;
    UpnpRequest& operator=(const UpnpRequest& other);
    ~UpnpRequest() override;

    /// Returns "M-SEARCH", "NOTIFY" or "UNKNOWN".
    std::string GetMethodName() const override;

    /// Takes "M-SEARCH" and "NOTIFY" in any case. Other names throw `ParserException` "Invalid Method", so a
    /// datagram with another method cannot be parsed into this class.
    void SetMethodName(const std::string& name) override;

    /// Returns a `UpnpMethod`, or any other number that was set.
    unsigned int GetMethod() const override;
    void SetMethod(unsigned int method) override;

    const std::string* GetHost() const { return Get("HOST"); }
    void SetHost(const char* value) { Set("HOST", value); }

    /// Returns the number of seconds within which a search expects its answers, as the sender has written it.
    const std::string* GetMX() const { return Get("MX"); }

    const std::string* GetNT() const { return Get("NT"); }
    void SetNT(const char* value) { Set("NT", value); }
    const std::string* GetNTS() const { return Get("NTS"); }
    void SetNTS(const char* value) { Set("NTS", value); }

private:
    unsigned int _upnpMethod = UNKO;
};

}  // namespace zarip::inet
