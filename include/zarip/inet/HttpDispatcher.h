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

/// Hands requests to the handlers of their paths. *Thread-safe*, except that handlers are added and removed
/// while no request is served. No lock is held while a handler runs.
class ZARIP_EXPORT HttpDispatcher {
public:
    HttpDispatcher();
    HttpDispatcher(const HttpDispatcher&) = delete;
    HttpDispatcher& operator=(const HttpDispatcher&) = delete;
    ~HttpDispatcher();

    /// Registers a handler for the paths that match shell wildcards: '*' and '?' match '/' too. A pattern
    /// that is here already gets the new handler. The handler is *not owned*.
    ///
    /// Deliberate: longer patterns are tried first, those of one length in the order of their bytes, so
    /// callers may register a general pattern such as "*" beside particular ones in any order.
    void AddHandler(const std::string& pattern, IHttpHandler* handler);

    /// Removes every entry of this handler.
    void RemoveHandler(IHttpHandler* handler);

    /// Reads one request and writes the answer: 400 when it cannot be read (a stream that breaks down in the
    /// middle of it included), 404 when no pattern matches, 500 when the handler throws, which is logged.
    /// Throws nothing that reading or the handler threw. The answer is written even though reading has left
    /// the stream in a failed state; it is not flushed.
    void HandleRequest(std::istream& in, std::ostream& out);

    /// Answers a request that has been read: as above, without the 400.
    void HandleRequest(const HttpRequest& request, HttpResponse& response);

    /// Whether the handler for this path is an `IHttpStreamHandler`.
    bool IsStream(const std::string& path) const;

    /// Has the stream handler for the path of a head decide what becomes of its connection. Answers 500 when
    /// it throws, and 404 when no stream handler fits.
    void HandleHead(const HttpRequest& head, HttpResponse& response, IHttpConnection& connection);

private:
    std::unique_ptr<HttpDispatcherImpl> _impl;
};

}  // namespace zarip::inet
