// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/inet/IHttpHandler.h>
#include <zarip/osa/Export.h>

namespace zarip::inet {

class IHttpConnection;

/// Answers requests whose body or answer is a stream: a live picture, an upload larger than memory. Added to
/// an `HttpServer` like any other handler.
///
/// It is called as soon as the head of a request is there, before its body is read. It either takes the
/// connection out of the server, and hands it to a thread of its own, or fills the response, which the
/// server then sends without reading the body: so a login or a length that does not fit is refused early.
class ZARIP_EXPORT IHttpStreamHandler : public IHttpHandler {
public:
    /// *Called on TcpSocketThread*, without any lock, like `HandleRequest`: what takes long is for another
    /// thread. What it throws makes the code 500 if the connection was not taken.
    /// @param head  the request without its body; form parameters are part of the body.
    /// @param response  sent unless the connection is taken.
    /// @param connection  *not owned*, valid during the call.
    virtual void HandleHead(const HttpRequest& head, HttpResponse& response, IHttpConnection& connection) = 0;

    /// For a request that came without a connection, from `HttpDispatcher::HandleRequest`: answers 501 unless
    /// overridden.
    void HandleRequest(const HttpRequest& request, HttpResponse& response) override;
};

}  // namespace zarip::inet
