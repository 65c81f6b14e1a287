// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::inet {

class IHttpHandler;

/// A small HTTP/1.1 server: one request for each connection, answered by the handler with the longest pattern
/// that matches its path. For a camera's own pages and interfaces.
///
/// Handlers are called with whole requests, one at a time unless `SetWorkers` says otherwise, on threads
/// named "TcpSocketThread" with 1 MiB of stack. Only a handler that takes long delays others: clients that
/// are silent, dribble, or do not read cost a connection and no thread. A client that sends nothing for 5
/// seconds before its request is whole, or takes more than the time limit for the head of it, is answered
/// 400; one that takes nothing of its answer for 5 seconds is cut. While they make progress, a large body and
/// a large answer may take as long as they need.
///
/// At most 1,000 connections are open at once, no more than half the descriptors that the process may open,
/// and 8 MiB are held for all of them; beyond that the connection whose time ends first, or that holds the
/// most, is closed.
///
/// What the server sends is what the handler has set, unless `SetStandardResponses` makes it keep the web's
/// rules, which browsers, proxies and libraries for clients rely on.
///
/// *Thread-safe*, except that handlers are added and removed, and everything is set, before the start. A
/// handler may stop the server, and delete it: both only ask it to end, which it does when the handlers that
/// run have returned.
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

    /// The time in seconds, 30 at first, that a client may take for the head of its request; 0xFFFFFFFF for
    /// no limit. A limit below 5 seconds is also the longest silence.
    void SetTimeLimit(unsigned int seconds);

    /// How many handlers may run at once: 1, as at first, to 64; other numbers become the nearest of these.
    /// With more than one, handlers must be thread-safe.
    void SetWorkers(unsigned int count);

    /// Has the server keep the web's rules where a handler has not set something else: answers say
    /// "Connection: close" and "Date", an answer to HEAD leaves without its body and keeps its length, and a
    /// client that waits for "100 Continue" before it sends a body of up to 1 MiB gets it. Off at first, for
    /// clients that know what they get to the byte.
    void SetStandardResponses(bool on);

    /// Starts serving; returns once the server listens. Does nothing while the server runs. Throws
    /// `osa::SocketException` "listen failed", and "Server was stopped" after `StopServerThread`.
    void StartServerThread();

    /// Ends serving, and waits for it: requests that are not whole are cut, handlers that run may end, and
    /// their answers get a second to leave. Called by a handler it does not wait.
    void StopServerThread();

    unsigned short GetLocalPort() const;

private:
    class HttpServerImpl;
    std::unique_ptr<HttpServerImpl> _impl;
};

}  // namespace zarip::inet
