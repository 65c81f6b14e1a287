// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::inet {

class IHttpHandler;

/// A small HTTP/1.1 server for a camera's own pages and interfaces. It serves one request per connection,
/// which the handler with the longest matching pattern answers.
///
/// States: *new* after the constructor, *running* after `StartServerThread`, *stopped* for good after
/// `StopServerThread`. Handlers and settings are changed in the first state only; each of the two calls may
/// be repeated.
///
/// Handlers are called with complete requests on threads named "TcpSocketThread", which have 1 MiB of stack.
/// They run one at a time unless `SetWorkers` allows more. Only a slow handler delays other clients: a client
/// that is silent, sends slowly or does not read occupies a connection but no thread. A client is answered
/// 400 if it sends nothing for 5 seconds before its request is complete, or if its head takes longer than the
/// time limit. A client that accepts nothing of its answer for 5 seconds is disconnected. A large body and a
/// large answer may take any time as long as they make progress.
///
/// At most 1,000 connections are open at once, and never more than half of the descriptors that the process
/// may open. If there are too many, the connection that would time out first is closed. All connections
/// together may buffer 8 MiB. If they exceed that, the connection with the largest buffer is closed.
///
/// The server sends exactly what the handler has set. `SetStandardResponses` makes it follow the rules of the
/// web as well, on which browsers, proxies and client libraries rely.
///
/// *Thread-safe*, except that handlers and settings may only be changed before the start. A handler may stop
/// or delete the server. Both only request the end, and the server ends when the running handlers have
/// returned.
class ZARIP_EXPORT HttpServer {
public:
    /// Binds the socket, which does not listen yet. Throws what `osa::TcpSocket` throws.
    /// @param address  a numeric IP address, or the name of a unix-domain socket.
    /// @param port  is taken modulo 65,536; 0 selects a free port.
    HttpServer(const std::string& address, int port);
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Stops the server as `StopServerThread` does.
    ~HttpServer();

    /// @param handler  *not owned*, must outlive the server or be removed; see `HttpDispatcher`.
    void AddHandler(const std::string& pattern, IHttpHandler* handler);
    void RemoveHandler(IHttpHandler* handler);

    /// Sets the time in seconds that a client may take to send the head of its request. The default is 30;
    /// `osa::kWaitForEver` means no limit. A limit below 5 seconds also limits how long a client may be
    /// silent.
    void SetTimeLimit(unsigned int seconds);

    /// Sets how many handlers may run at once, from 1 (the default) to 64; other numbers are clamped. If
    /// several may run at once, handlers must be thread-safe.
    void SetWorkers(unsigned int count);

    /// Makes the server follow the rules of the web unless a handler has set something else. Answers then
    /// have the headers "Connection" ("close") and "Date". An answer to HEAD is sent without its body but
    /// with its length. A client that waits for "100 Continue" before it sends a body of up to 1 MiB gets it.
    /// This is off by default, for clients that expect the exact bytes that a handler sets.
    void SetStandardResponses(bool on);

    /// Starts serving and returns once the server listens. Does nothing if the server is running. Throws
    /// `osa::SocketException` "listen failed", or "Server was stopped" if the server has been stopped.
    void StartServerThread();

    /// Stops serving and waits for the end: incomplete requests are dropped, running handlers finish, and
    /// their answers get one second to be sent. Does not wait if a handler calls it. Does nothing if the
    /// server is not running.
    void StopServerThread();

    unsigned short GetLocalPort() const;

private:
    class HttpServerImpl;
    std::unique_ptr<HttpServerImpl> _impl;
};

}  // namespace zarip::inet
