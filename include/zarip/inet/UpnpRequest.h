#pragma once

#include <string>

#include <zarip/inet/HttpRequest.h>
#include <zarip/osa/Export.h>

namespace zarip::inet {

/// A request of UPnP discovery (SSDP): M-SEARCH or NOTIFY, an HTTP request in a datagram. A new one has no
/// known method, the protocol "HTTP/1.1", the path "*" and goes to 239.255.255.250, port 1900. *One thread at
/// a time*.
///
/// Getters return the header's value, *not owned* and valid until that header changes, or null when it is
/// absent. Setters take null for the empty text; they throw `ParserException` "BadRequest" as
/// `HttpBase::SetHeader` does.
class ZARIP_EXPORT UpnpRequest : public HttpRequest {
public:
    /// Four characters, the first in the lowest byte.
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

    /// "M-SEARCH", "NOTIFY" or "UNKNOWN".
    std::string GetMethodName() const override;

    /// The first two, in any case of letters; others throw `ParserException` "Invalid Method", so a datagram
    /// with another method cannot be parsed into this class.
    void SetMethodName(const std::string& name) override;

    /// A `UpnpMethod`, or any other number that was set.
    unsigned int GetMethod() const override;
    void SetMethod(unsigned int method) override;

    const std::string* GetHost() const;
    void SetHost(const char* value);
    const std::string* GetST() const;
    void SetST(const char* value);

    /// The seconds within which a search wants its answers, as the sender has written them.
    const std::string* GetMX() const;

    const std::string* GetUSN() const;
    void SetUSN(const char* value);
    const std::string* GetLocation() const;
    void SetLocation(const char* value);

    /// The header "CACHE-CONTROL". Deliberate: the names are spelt so, and programs are built against them.
    const std::string* GetCatchControl() const;
    void SetCatchControl(const char* value);

    const std::string* GetNT() const;
    void SetNT(const char* value);
    const std::string* GetNTS() const;
    void SetNTS(const char* value);
    const std::string* GetServer() const;
    void SetServer(const char* value);

private:
    unsigned int _upnpMethod = UNKO;
};

}  // namespace zarip::inet
