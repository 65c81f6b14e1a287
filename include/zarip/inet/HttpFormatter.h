// SPDX-License-Identifier: MIT

#pragma once

#include <iosfwd>

#include <zarip/osa/Export.h>

namespace zarip::inet {

class HttpRequestBase;
class HttpResponseBase;

/// Writes HTTP/1.1 messages to streams: first line, headers in the order of their names, an empty line, body.
/// Adds no header of its own and does not flush. Throws `ParserException` "BadRequest", and writes nothing,
/// if the first line holds a carriage return, line feed or zero byte. *Thread-safe*: it holds nothing.
class ZARIP_EXPORT HttpFormatter {
public:
    HttpFormatter();
    HttpFormatter(const HttpFormatter& other);
    HttpFormatter& operator=(const HttpFormatter& other);
    virtual ~HttpFormatter();

    void Format(std::ostream& out, const HttpResponseBase& response) const;

    /// Deliberate: the target is the path as it stands; the query string is not written. Callers that send a
    /// query have it in the path, encoded as they want it.
    void Format(std::ostream& out, const HttpRequestBase& request) const;
};

/// `HttpFormatter().Format`; returns the stream.
ZARIP_EXPORT std::ostream& operator<<(std::ostream& out, const HttpRequestBase& request);
ZARIP_EXPORT std::ostream& operator<<(std::ostream& out, const HttpResponseBase& response);

}  // namespace zarip::inet
