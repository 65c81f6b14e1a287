#include "zarip/inet/UpnpRequest.h"

#include "inet/Address.h"
#include "inet/Text.h"
#include "inet/UpnpHeaders.h"
#include "zarip/inet/ParserException.h"

namespace zarip::inet {

namespace {

struct MethodRow {
    const char* name;
    UpnpRequest::UpnpMethod method;
};

constexpr MethodRow kMethods[] = {{"M-SEARCH", UpnpRequest::MSER}, {"NOTIFY", UpnpRequest::NOTF}};

}  // namespace

UpnpRequest::UpnpRequest() {
    SetProtocol(kUpnpProtocol);
    SetPath("*");
    SetDest(ParseAddress("239.255.255.250:1900"));
}

UpnpRequest::UpnpRequest(const UpnpRequest& other) = default;
UpnpRequest& UpnpRequest::operator=(const UpnpRequest& other) = default;
UpnpRequest::~UpnpRequest() = default;

std::string UpnpRequest::GetMethodName() const {
    for (const MethodRow& row : kMethods) {
        if (row.method == _upnpMethod) {
            return row.name;
        }
    }
    return "UNKNOWN";
}

void UpnpRequest::SetMethodName(const std::string& name) {
    for (const MethodRow& row : kMethods) {
        if (EqualsIgnoringCase(name, row.name)) {
            _upnpMethod = row.method;
            return;
        }
    }
    throw ParserException("Invalid Method");
}

unsigned int UpnpRequest::GetMethod() const {
    return _upnpMethod;
}

void UpnpRequest::SetMethod(unsigned int method) {
    _upnpMethod = method;
}

const std::string* UpnpRequest::GetHost() const {
    return GetHeader(kHost);
}

void UpnpRequest::SetHost(const char* value) {
    SetUpnpHeader(*this, kHost, value);
}

const std::string* UpnpRequest::GetST() const {
    return GetHeader(kSearchTarget);
}

void UpnpRequest::SetST(const char* value) {
    SetUpnpHeader(*this, kSearchTarget, value);
}

const std::string* UpnpRequest::GetMX() const {
    return GetHeader(kMaxWait);
}

const std::string* UpnpRequest::GetUSN() const {
    return GetHeader(kServiceName);
}

void UpnpRequest::SetUSN(const char* value) {
    SetUpnpHeader(*this, kServiceName, value);
}

const std::string* UpnpRequest::GetLocation() const {
    return GetHeader(kLocation);
}

void UpnpRequest::SetLocation(const char* value) {
    SetUpnpHeader(*this, kLocation, value);
}

const std::string* UpnpRequest::GetCatchControl() const {
    return GetHeader(kCacheControl);
}

void UpnpRequest::SetCatchControl(const char* value) {
    SetUpnpHeader(*this, kCacheControl, value);
}

const std::string* UpnpRequest::GetNT() const {
    return GetHeader(kNotificationType);
}

void UpnpRequest::SetNT(const char* value) {
    SetUpnpHeader(*this, kNotificationType, value);
}

const std::string* UpnpRequest::GetNTS() const {
    return GetHeader(kNotificationSubType);
}

void UpnpRequest::SetNTS(const char* value) {
    SetUpnpHeader(*this, kNotificationSubType, value);
}

const std::string* UpnpRequest::GetServer() const {
    return GetHeader(kServer);
}

void UpnpRequest::SetServer(const char* value) {
    SetUpnpHeader(*this, kServer, value);
}

}  // namespace zarip::inet
