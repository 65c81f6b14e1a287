#pragma once

#include <memory>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::inet {

class IHttpHandler;

/// A small HTTP/1.1 server: one request for each connection, answered by the handler with the longest pattern
/// that matches its path. For a camera's own pages and interfaces; never behind a proxy that keeps
/// connections open.
///
/// Requests are served one at a time, on the thread "TcpSocketThread". A client that has not sent a whole
/// header yet costs no thread. One that is served waits at most 5 seconds for each read, and no longer than
/// the time limit for all of them; after that it is answered 400. *Thread-safe* but for the handlers, which
/// are added and removed while the server does not run.
class ZARIP_EXPORT HttpServer {
public:
    /// Binds; nothing listens yet. Throws what `osa::TcpSocket` throws.
    /// @param address  a numeric IP address, or the name of a unix-domain socket.
    /// @param port  taken modulo 65,536; 0 takes a free one.
    HttpServer(const std::string& address, int port);
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Stops the server.
    ~HttpServer();

    /// @param handler  *not owned*, must outlive the server or be removed; see `HttpDispatcher`.
    void AddHandler(const std::string& pattern, IHttpHandler* handler);
    void RemoveHandler(IHttpHandler* handler);

    /// The time in seconds, 30 at first, that a client may take for its header, and again for the rest of its
    /// request and for taking the answer. Before `StartServerThread`.
    void SetTimeLimit(unsigned int seconds);

    /// Starts serving; returns once the server listens. Throws `osa::SocketException` "listen failed".
    void StartServerThread();

    /// Ends serving, also in the middle of a request. A stopped server is not started again.
    void StopServerThread();

    unsigned short GetLocalPort() const;

private:
    class HttpServerImpl;
    std::unique_ptr<HttpServerImpl> _impl;
};

}  // namespace zarip::inet
