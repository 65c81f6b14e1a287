// SPDX-License-Identifier: MIT

#pragma once

#include <iosfwd>
#include <memory>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::inet {

class IHttpConnection;
class HttpRequest;
class HttpResponse;
class IHttpHandler;
struct HttpDispatcherImpl;

/// Passes each request to the handler that is registered for its path. *Thread-safe*, except that handlers
/// may only be added and removed while no request is served. No lock is held while a handler runs.
class ZARIP_EXPORT HttpDispatcher {
public:
    HttpDispatcher();
    HttpDispatcher(const HttpDispatcher&) = delete;
    HttpDispatcher& operator=(const HttpDispatcher&) = delete;
    ~HttpDispatcher();

    /// Registers a handler for the paths that match a pattern of shell wildcards, in which `*` and `?` also
    /// match `/`. If the pattern is already registered, the new handler replaces the old one. The handler is
    /// *not owned*.
    ///
    /// Deliberate: longer patterns are tried first, and patterns of equal length in the order of their bytes.
    /// Callers can therefore register a general pattern such as "*" and special ones in any order.
    void AddHandler(const std::string& pattern, IHttpHandler* handler);

    /// Removes the handler from every pattern for which it is registered.
    void RemoveHandler(IHttpHandler* handler);

    /// Reads one request and writes the answer. The code is 400 if the request is malformed or the stream
    /// fails while it is read, 404 if no pattern matches, and 500 if the handler throws. The handler's
    /// exception is logged; neither it nor a read error leaves this function. The answer is written even if
    /// reading has left the stream in a failed state. The stream is not flushed.
    void HandleRequest(std::istream& in, std::ostream& out);

    /// Answers a request that has already been read, in the same way but never with 400.
    void HandleRequest(const HttpRequest& request, HttpResponse& response);

    /// Returns whether the handler for this path is an `IHttpStreamHandler`.
    bool IsStream(const std::string& path) const;

    /// Passes the head of a request to the stream handler for its path, which either takes the connection or
    /// fills the response. The code is 500 if the handler throws, and 404 if no stream handler matches.
    void HandleHead(const HttpRequest& head, HttpResponse& response, IHttpConnection& connection);

private:
    std::unique_ptr<HttpDispatcherImpl> _impl;
};

}  // namespace zarip::inet
