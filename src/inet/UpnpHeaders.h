#pragma once

#include "zarip/inet/HttpBase.h"

namespace zarip::inet {

// The headers of discovery messages, as they are written.
constexpr const char* kHost = "HOST";
constexpr const char* kSearchTarget = "ST";
constexpr const char* kMaxWait = "MX";
constexpr const char* kServiceName = "USN";
constexpr const char* kLocation = "LOCATION";
constexpr const char* kCacheControl = "CACHE-CONTROL";
constexpr const char* kNotificationType = "NT";
constexpr const char* kNotificationSubType = "NTS";
constexpr const char* kServer = "SERVER";

constexpr const char* kUpnpProtocol = "HTTP/1.1";

inline void SetUpnpHeader(HttpBase& message, const char* name, const char* value) {
    message.SetHeader(name, value != nullptr ? value : "");
}

}  // namespace zarip::inet
