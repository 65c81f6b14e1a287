// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/inet/IHttpHandler.h>
#include <zarip/osa/Export.h>

namespace zarip::inet {

class IHttpConnection;

/// Answers requests whose body or answer is a stream, for example a live picture or an upload that is larger
/// than memory. It is added to an `HttpServer` like any other handler.
///
/// It is called when the head of a request has arrived, before the body is read. It either takes the
/// connection out of the server and passes it to a thread of its own, or it fills the response. The server
/// then sends the response without reading the body, so a bad login or an excessive length is refused early.
class ZARIP_EXPORT IHttpStreamHandler : public IHttpHandler {
public:
    /// *Called on TcpSocketThread* with no lock held, like `HandleRequest`; long work belongs on another
    /// thread. An exception is logged and sets the code to 500 unless the connection was taken.
    /// @param head  the request without its body, and therefore without form parameters.
    /// @param response  is sent unless the connection is taken.
    /// @param connection  *not owned*, valid during the call.
    virtual void HandleHead(const HttpRequest& head, HttpResponse& response, IHttpConnection& connection) = 0;

    /// Answers a request that came through `HttpDispatcher::HandleRequest`, without a connection. The code is
    /// 501 unless a derived class overrides this.
    void HandleRequest(const HttpRequest& request, HttpResponse& response) override;
};

}  // namespace zarip::inet
