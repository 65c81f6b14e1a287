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

    /// Takes the connection out of the server: the *caller owns* it, reads the body from it, writes the
    /// answer to it, and closes it, best with `TcpSocket::Finish`. It may be used on any thread, has no time
    /// limit of its own, outlives the server, and is not ended by `HttpServer::StopServerThread`. The part of
    /// the body that has come already is received first.
    ///
    /// A client that waits for "100 Continue" is sent it now if the server makes standard responses.
    /// Throws `osa::Exception` "Connection was taken" when called again.
    virtual std::unique_ptr<osa::TcpSocket> Take() = 0;

    /// The announced length of the body in bytes, of any size; 0 without a body.
    virtual unsigned long long GetContentLength() const = 0;
};

}  // namespace zarip::inet
