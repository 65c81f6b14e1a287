// SPDX-License-Identifier: MIT

#pragma once

#include <iosfwd>
#include <string>
#include <string_view>

#include <zarip/osa/Export.h>

namespace zarip::inet {

class HttpRequestBase;
class HttpResponseBase;
class MessageReader;

/// Reads HTTP/1.1 messages from streams. *Thread-safe*, because it has no state. Derived classes can override
/// how lines are parsed.
///
/// The parser never reads more of a stream than the message needs, so it can read from a stream that waits
/// for its peer. It blocks while the stream blocks. Memory grows with the bytes that arrive, never with the
/// announced length.
///
/// Errors are `ParserException`s: "BadRequest", "proto exceeds max length", "body exceeds max length" or "too
/// much data". A malformed percent escape throws a `const char*`, as `Url::Decode` does. After an error the
/// message may be partly filled. A stream that fails, for example by a time-out, is a "BadRequest"; the end
/// of the stream ends the message.
///
/// Do not use it for connections that a proxy keeps open for several requests: if there are several
/// "Content-Length" headers, the last one counts.
class ZARIP_EXPORT HttpParser {
public:
    HttpParser();
    HttpParser(const HttpParser& other);
    HttpParser& operator=(const HttpParser& other);
    virtual ~HttpParser();

    /// Reads a request. If there is a "Content-Length", a body of that length is read, which may have at most
    /// 1,048,576 bytes. A body that ends early is accepted; compare `GetBodyLength` with the header. If the
    /// request is a POST and its content type is exactly "application/x-www-form-urlencoded", the body is
    /// also parsed into form parameters.
    ///
    /// These throw "BadRequest": a "Transfer-Encoding" header, more than 1,000 headers or more than 1 MiB of
    /// them, white space around a header's name, and control characters in the first line.
    void Parse(std::istream& in, HttpRequestBase& request) const;

    /// Reads only the head of a request, up to the empty line after its headers, so that the caller can
    /// stream a body of any length. Returns the announced length of the body, or 0 if none is announced.
    /// Throws what `Parse` throws.
    unsigned long long ParseHead(std::istream& in, HttpRequestBase& request) const;

    /// Reads a response, whose body is the rest of the stream. The headers have the same limits as those of a
    /// request.
    void Parse(std::istream& in, HttpResponseBase& response) const;

    /// Splits a query at '&' and ';' into pairs "name=value", decodes '+' and percent escapes in them, and
    /// adds them to the form or query parameters. A pair without '=' and the 10,001st pair throw
    /// "BadRequest"; the parameters before it stay. One separator at the end is allowed.
    static void ParseQuery(HttpRequestBase& request, std::string query, bool isForm);

protected:
    /// These functions get a line without its end and may modify it.
    virtual void ParseRequestLine(char* line, HttpRequestBase& request) const;
    virtual void ParseResponseLine(char* line, HttpResponseBase& response) const;

    /// Sets `name` and `value` to zero-terminated parts of the line.
    virtual void ParseHeader(char* line, char*& name, char*& value) const;

private:
    friend class HttpExchange;

    ZARIP_HIDDEN unsigned long long ReadHead(MessageReader& reader, HttpRequestBase& request) const;
    struct Header {
        std::string_view name;
        std::string_view value;
    };
    ZARIP_HIDDEN static Header SplitHeader(std::string_view line);
    ZARIP_HIDDEN Header SplitWithParser(char* line, std::size_t size) const;
    ZARIP_HIDDEN void ReadBody(MessageReader& reader, unsigned long long length,
                               HttpRequestBase& request) const;
};

/// These operators call `HttpParser().Parse` and return the stream.
ZARIP_EXPORT std::istream& operator>>(std::istream& in, HttpRequestBase& request);
ZARIP_EXPORT std::istream& operator>>(std::istream& in, HttpResponseBase& response);

}  // namespace zarip::inet
