// SPDX-License-Identifier: MIT

#include "zarip/inet/UpnpRequest.h"

#include "inet/Address.h"
#include "inet/MessageText.h"
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
    SetProtocol("HTTP/1.1");
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

}  // namespace zarip::inet
