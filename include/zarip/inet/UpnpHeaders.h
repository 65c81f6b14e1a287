// SPDX-License-Identifier: MIT

#pragma once

#include <string>

namespace zarip::inet {

/// The common headers of requests and responses of UPnP discovery. It is a base class of `Message`, which
/// also derives from `HttpBase`.
///
/// Getters return the header's value, or null if the header is absent. The pointer is *not owned* and valid
/// until that header changes. Setters treat null as the empty string and throw `ParserException` "BadRequest"
/// as `HttpBase::SetHeader` does. *One thread at a time*.
template <class Message>
class UpnpHeaders {
public:
    const std::string* GetST() const { return Get("ST"); }
    void SetST(const char* value) { Set("ST", value); }
    const std::string* GetUSN() const { return Get("USN"); }
    void SetUSN(const char* value) { Set("USN", value); }
    const std::string* GetLocation() const { return Get("LOCATION"); }
    void SetLocation(const char* value) { Set("LOCATION", value); }

    /// Access the header "CACHE-CONTROL". Deliberate: programs are built against the names as they are spelt
    /// here.
    const std::string* GetCatchControl() const { return Get("CACHE-CONTROL"); }
    void SetCatchControl(const char* value) { Set("CACHE-CONTROL", value); }

    const std::string* GetServer() const { return Get("SERVER"); }
    void SetServer(const char* value) { Set("SERVER", value); }

protected:
    ~UpnpHeaders() = default;

    const std::string* Get(const char* name) const {
        return static_cast<const Message*>(this)->GetHeader(name);
    }
    void Set(const char* name, const char* value) {
        static_cast<Message*>(this)->SetHeader(name, value != nullptr ? value : "");
    }
};

}  // namespace zarip::inet
