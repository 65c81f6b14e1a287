// SPDX-License-Identifier: MIT

#pragma once

#include <arpa/inet.h>

#include <zarip/core/StringUtil.h>
#include <zarip/inet/HttpRequest.h>
#include <zarip/inet/HttpResponse.h>
#include <zarip/inet/IHttpHandler.h>
#include <zarip/inet/IHttpStreamHandler.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

/// Refuses requests that a browser sends on behalf of a foreign site. *Thread-safe*: it never changes.
///
/// A foreign site has two ways. It can let its own name resolve to the camera's address (DNS rebinding); then
/// "Host" holds that name, and only known names are served. Or its page can send a form to the camera, to
/// which the browser adds the user's cookies; then "Origin" is not the "Host".
class RequestGuard {
public:
    /// @param names  what "Host" may hold, apart from "localhost" and literal addresses. Ports do not count.
    explicit RequestGuard(std::vector<std::string> names) : _names(std::move(names)) {
        for (std::string& name : _names) {
            name = ToLower(name);
        }
    }

    /// Returns the code of the answer to a request that is refused, and 0 for one that may be served.
    int Check(const zarip::inet::HttpRequest& request) const {
        const std::string* const host = request.GetHeader("Host");
        if (host == nullptr || !IsKnown(*host)) {
            return 421;
        }
        const std::string method = request.GetMethodName();
        const bool onlyReads = method == "GET" || method == "HEAD";
        return onlyReads || IsOwnPage(request, *host) ? 0 : 403;
    }

    bool IsKnown(const std::string& host) const {
        const std::string name = ToLower(WithoutPort(host));
        if (name.size() > 2 && name.front() == '[' && name.back() == ']') {
            in6_addr address{};
            return ::inet_pton(AF_INET6, name.substr(1, name.size() - 2).c_str(), &address) == 1;
        }
        in_addr address{};
        return name == "localhost" || ::inet_pton(AF_INET, name.c_str(), &address) == 1 ||
               std::find(_names.begin(), _names.end(), name) != _names.end();
    }

private:
    static std::string ToLower(std::string text) {
        for (char& c : text) {
            c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
        }
        return text;
    }

    static std::string WithoutPort(const std::string& host) {
        const std::size_t colon = host.rfind(':');
        const bool isPort = colon != std::string::npos && colon > 0 &&
                            (host.front() != '[' || host[colon - 1] == ']') &&
                            host.find_first_not_of("0123456789", colon + 1) == std::string::npos;
        return isPort ? host.substr(0, colon) : host;
    }

    static std::string WithoutEnd(const std::string& text, const std::string& end) {
        const bool hasEnd =
            text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
        return hasEnd ? text.substr(0, text.size() - end.size()) : text;
    }

    /// A request without "Origin" does not come from a script or form of a current browser, unless
    /// "Sec-Fetch-Site" says otherwise. A proxy in front may speak TLS, so both schemes are right.
    static bool IsOwnPage(const zarip::inet::HttpRequest& request, const std::string& host) {
        const std::string* const site = request.GetHeader("Sec-Fetch-Site");
        if (site != nullptr && *site != "same-origin" && *site != "none") {
            return false;
        }
        const std::string* const origin = request.GetHeader("Origin");
        if (origin == nullptr) {
            return true;
        }
        const std::pair<const char*, const char*> schemes[] = {{"http://", ":80"}, {"https://", ":443"}};
        for (const auto& [scheme, port] : schemes) {
            if (zarip::core::StringUtil::StartsWith(*origin, scheme)) {
                const std::string sender = origin->substr(std::string(scheme).size());
                return WithoutEnd(ToLower(sender), port) == WithoutEnd(ToLower(host), port);
            }
        }
        return false;
    }

    std::vector<std::string> _names;
};

/// Answers a request that the guard refuses. Sets headers on every answer, with which browsers run only the
/// scripts and styles of the camera, guess no types, do not show the page in a frame of another site, and do
/// not name it to other sites. Returns whether the request may be served.
inline bool GuardAnswer(const RequestGuard& guard, const zarip::inet::HttpRequest& request,
                        zarip::inet::HttpResponse& response) {
    response.SetHeader("Content-Security-Policy",
                       "default-src 'none'; style-src 'self'; script-src 'self'; img-src 'self'; connect-src "
                       "'self'; form-action 'none'; frame-ancestors 'none'; base-uri 'none'");
    response.SetHeader("X-Content-Type-Options", "nosniff");
    response.SetHeader("Referrer-Policy", "same-origin");
    const int refusal = guard.Check(request);
    if (refusal != 0) {
        response.SetCode(refusal);
        response.SetHeader("Content-Type", "application/json");
        response.SetBody(refusal == 421 ? "{\"error\":\"The camera is not known by this name.\"}"
                                        : "{\"error\":\"Another site has sent this request.\"}");
    }
    return refusal == 0;
}

/// Passes the requests that the guard admits to another handler. *Thread-safe* if the other handler is.
class GuardedHandler final : public zarip::inet::IHttpHandler {
public:
    /// Both are *not owned* and must outlive this.
    GuardedHandler(const RequestGuard& guard, zarip::inet::IHttpHandler& handler)
        : _guard(guard), _handler(handler) {}

    void HandleRequest(const zarip::inet::HttpRequest& request,
                       zarip::inet::HttpResponse& response) override {
        if (GuardAnswer(_guard, request, response)) {
            _handler.HandleRequest(request, response);
        }
    }

private:
    const RequestGuard& _guard;
    zarip::inet::IHttpHandler& _handler;
};

/// The same for a handler of streams.
class GuardedStreamHandler final : public zarip::inet::IHttpStreamHandler {
public:
    GuardedStreamHandler(const RequestGuard& guard, zarip::inet::IHttpStreamHandler& handler)
        : _guard(guard), _handler(handler) {}

    void HandleHead(const zarip::inet::HttpRequest& head, zarip::inet::HttpResponse& response,
                    zarip::inet::IHttpConnection& connection) override {
        if (GuardAnswer(_guard, head, response)) {
            _handler.HandleHead(head, response, connection);
        }
    }

private:
    const RequestGuard& _guard;
    zarip::inet::IHttpStreamHandler& _handler;
};
