// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>

namespace zarip::inet {

class HttpRequest;
class HttpResponse;

/// Answers requests. *Called on TcpSocketThread* with no lock held, one call at a time unless
/// `HttpServer::SetWorkers` allows more. Successive calls may run on different threads of that name, which
/// have 1 MiB of stack. The server continues to serve its other connections while a handler runs.
class ZARIP_EXPORT IHttpHandler {
public:
    IHttpHandler() = default;
    IHttpHandler(const IHttpHandler&) = default;
    IHttpHandler& operator=(const IHttpHandler&) = default;
    virtual ~IHttpHandler() = default;

    /// Sets code, headers and body of the response, whose code is 503 at first. An exception is logged and
    /// sets the code to 500; headers and body stay as they are.
    ///
    /// The request's `GetSource` is the client's address and its `GetDest` the server's; both are "0.0.0.0"
    /// for a unix-domain socket. The path is decoded and may contain "..", so check it before you use it as a
    /// file name. The body is shorter than its "Content-Length" if the client has disconnected early.
    virtual void HandleRequest(const HttpRequest& request, HttpResponse& response) = 0;
};

}  // namespace zarip::inet
