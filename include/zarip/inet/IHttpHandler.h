// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>

namespace zarip::inet {

class HttpRequest;
class HttpResponse;

/// Answers requests. *Called on TcpSocketThread*, without any lock, one call at a time unless
/// `HttpServer::SetWorkers` says otherwise; successive calls may come on different threads of that name. They
/// have 1 MiB of stack. While a handler runs the server still serves its other connections.
class ZARIP_EXPORT IHttpHandler {
public:
    IHttpHandler() = default;
    IHttpHandler(const IHttpHandler&) = default;
    IHttpHandler& operator=(const IHttpHandler&) = default;
    virtual ~IHttpHandler() = default;

    /// Sets code, headers and body of the response, whose code is 503 until then. Whatever it throws is
    /// logged and makes the code 500; headers and body stay as they are.
    ///
    /// `GetSource` of the request is the client's address and `GetDest` the server's; "0.0.0.0" for a
    /// unix-domain socket. The path is decoded and may hold "..": it is not a file name until that has been
    /// checked. A body may be shorter than its "Content-Length" says, if the client has gone away.
    virtual void HandleRequest(const HttpRequest& request, HttpResponse& response) = 0;
};

}  // namespace zarip::inet
