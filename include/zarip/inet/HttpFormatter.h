// SPDX-License-Identifier: MIT

#pragma once

#include <iosfwd>

#include <zarip/osa/Export.h>

namespace zarip::inet {

class HttpRequestBase;
class HttpResponseBase;

/// Writes HTTP/1.1 messages to streams: the first line, the headers in the order of their names, an empty
/// line, and the body. It adds no headers and does not flush. If the first line contains a carriage return, a
/// line feed or a zero byte, it throws `ParserException` "BadRequest" and writes nothing. *Thread-safe*,
/// because it has no state.
class ZARIP_EXPORT HttpFormatter {
public:
    HttpFormatter();
    HttpFormatter(const HttpFormatter& other);
    HttpFormatter& operator=(const HttpFormatter& other);
    virtual ~HttpFormatter();

    void Format(std::ostream& out, const HttpResponseBase& response) const;

    /// Deliberate: the target is the unchanged path; the query string is not written. Callers that send a
    /// query append it to the path in the encoding they need.
    void Format(std::ostream& out, const HttpRequestBase& request) const;
};

/// These operators call `HttpFormatter().Format` and return the stream.
ZARIP_EXPORT std::ostream& operator<<(std::ostream& out, const HttpRequestBase& request);
ZARIP_EXPORT std::ostream& operator<<(std::ostream& out, const HttpResponseBase& response);

}  // namespace zarip::inet
