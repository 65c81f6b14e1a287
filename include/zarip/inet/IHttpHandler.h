#pragma once

#include <zarip/osa/Export.h>

namespace zarip::inet {

class HttpRequest;
class HttpResponse;

/// Answers requests. *Called on* the thread that serves the connection.
class ZARIP_EXPORT IHttpHandler {
public:
    IHttpHandler() = default;
    IHttpHandler(const IHttpHandler&) = default;
    IHttpHandler& operator=(const IHttpHandler&) = default;
    virtual ~IHttpHandler() = default;

    /// Sets code, headers and body of the response, whose code is 503 until then. Whatever it throws makes
    /// the code 500; headers and body stay as they are.
    ///
    /// The path is decoded and may hold "..": it is no file name until that has been checked. A body may be
    /// shorter than its "Content-Length" says, when the client went away.
    virtual void HandleRequest(const HttpRequest& request, HttpResponse& response) = 0;
};

}  // namespace zarip::inet
