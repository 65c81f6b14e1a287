// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/inet/HttpRequest.h>
#include <zarip/inet/HttpResponse.h>

#include <string>

/// The session of a browser, in a cookie that scripts cannot read and that other sites' requests do not
/// carry.
class SessionCookie {
public:
    /// Returns "" if the request has no cookie. What comes from a browser may be anything, zero bytes
    /// included.
    static std::string Get(const zarip::inet::HttpRequest& request) {
        const std::string* const value = request.GetCookie(kName);
        return value != nullptr ? *value : "";
    }

    static void Set(zarip::inet::HttpResponse& response, const std::string& session) {
        Write(response, session, "");
    }

    static void Clear(zarip::inet::HttpResponse& response) { Write(response, "", "; Max-Age=0"); }

private:
    static constexpr const char* kName = "session";

    static void Write(zarip::inet::HttpResponse& response, const std::string& session, const char* more) {
        response.SetHeader("Set-Cookie",
                           std::string(kName) + "=" + session + "; Path=/; HttpOnly; SameSite=Strict" + more);
    }
};
