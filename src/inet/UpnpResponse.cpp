#include "zarip/inet/UpnpResponse.h"

#include "inet/UpnpHeaders.h"

namespace zarip::inet {

UpnpResponse::UpnpResponse() {
    SetProtocol(kUpnpProtocol);
}

UpnpResponse::UpnpResponse(const UpnpResponse& other) = default;
UpnpResponse& UpnpResponse::operator=(const UpnpResponse& other) = default;
UpnpResponse::~UpnpResponse() = default;

const std::string* UpnpResponse::GetST() const {
    return GetHeader(kSearchTarget);
}

void UpnpResponse::SetST(const char* value) {
    SetUpnpHeader(*this, kSearchTarget, value);
}

const std::string* UpnpResponse::GetUSN() const {
    return GetHeader(kServiceName);
}

void UpnpResponse::SetUSN(const char* value) {
    SetUpnpHeader(*this, kServiceName, value);
}

const std::string* UpnpResponse::GetLocation() const {
    return GetHeader(kLocation);
}

void UpnpResponse::SetLocation(const char* value) {
    SetUpnpHeader(*this, kLocation, value);
}

const std::string* UpnpResponse::GetCatchControl() const {
    return GetHeader(kCacheControl);
}

void UpnpResponse::SetCatchControl(const char* value) {
    SetUpnpHeader(*this, kCacheControl, value);
}

const std::string* UpnpResponse::GetServer() const {
    return GetHeader(kServer);
}

void UpnpResponse::SetServer(const char* value) {
    SetUpnpHeader(*this, kServer, value);
}

}  // namespace zarip::inet
