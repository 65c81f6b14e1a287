// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

#include <zarip/osa/Export.h>
#include <zarip/osa/TcpSocket.h>

namespace zarip::inet {

/// The connection of a request, which an `IHttpStreamHandler` may take out of the server. *Called on* the
/// handler's thread only, and only while `HandleHead` runs.
class ZARIP_EXPORT IHttpConnection {
public:
    IHttpConnection() = default;
    IHttpConnection(const IHttpConnection&) = delete;
    IHttpConnection& operator=(const IHttpConnection&) = delete;
    virtual ~IHttpConnection() = default;

    /// Takes the connection out of the server. The *caller owns* it, reads the body from it, writes the
    /// answer to it, and closes it, preferably with `TcpSocket::Finish`. The connection can be used on any
    /// thread. It has no time limit, outlives the server, and is not closed by
    /// `HttpServer::StopServerThread`. Bytes of the body that have already arrived are received first.
    ///
    /// If the server sends standard responses and the client waits for "100 Continue", this call sends it. A
    /// second call throws `osa::Exception` "Connection was taken".
    virtual std::unique_ptr<osa::TcpSocket> Take() = 0;

    /// Returns the announced length of the body in bytes, which has no limit; 0 if there is no body.
    virtual unsigned long long GetContentLength() const = 0;
};

}  // namespace zarip::inet
