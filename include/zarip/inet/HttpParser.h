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

/// Reads HTTP/1.1 messages from streams. *Thread-safe*: it holds nothing. Derived classes may read lines in
/// their own way.
///
/// Never reads more of a stream than the message needs, so a stream that waits for its peer may be parsed
/// from; it blocks while the stream does. Memory grows with what arrives, never with what is announced.
///
/// What goes wrong throws `ParserException`: "BadRequest", "proto exceeds max length", "body exceeds max
/// length" or "too much data"; a wrong percent escape throws the text of `Url::Decode`, a `const char*`. The
/// message may then be filled in part. A stream that breaks down, as by a time-out, is a "BadRequest"; one
/// that just ends, ends the message.
///
/// Not for use behind a proxy that keeps connections open: of several "Content-Length" headers the last one
/// counts.
class ZARIP_EXPORT HttpParser {
public:
    HttpParser();
    HttpParser(const HttpParser& other);
    HttpParser& operator=(const HttpParser& other);
    virtual ~HttpParser();

    /// Reads a request. With a "Content-Length" the body is read to that length, at most 1,048,576 bytes; one
    /// that ends early is taken as it is (compare `GetBodyLength`). The body of a POST whose content type is
    /// exactly "application/x-www-form-urlencoded" also becomes form parameters.
    ///
    /// These are a "BadRequest": "Transfer-Encoding"; more than 1,000 headers, or 1 MiB of them; white space
    /// around a header's name; control characters in the first line.
    void Parse(std::istream& in, HttpRequestBase& request) const;

    /// Reads the head of a request alone, up to the empty line after its headers, so that the caller may
    /// stream a body of any length. Returns the announced length of the body, 0 without one. Fails as `Parse`
    /// does.
    unsigned long long ParseHead(std::istream& in, HttpRequestBase& request) const;

    /// Reads a response; its body is the rest of the stream. Limits for headers as above.
    void Parse(std::istream& in, HttpResponseBase& response) const;

    /// Adds the pairs "name=value" between '&' or ';' to the form or query parameters, '+' and percent
    /// escapes decoded. A pair without '=' and the 10,001st pair throw "BadRequest"; those before it stay.
    /// One separator at the end is allowed.
    static void ParseQuery(HttpRequestBase& request, std::string query, bool isForm);

protected:
    /// These get a line without its end and may write to it.
    virtual void ParseRequestLine(char* line, HttpRequestBase& request) const;
    virtual void ParseResponseLine(char* line, HttpResponseBase& response) const;

    /// `name` and `value` become zero-terminated parts of the line.
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

/// `HttpParser().Parse`; returns the stream.
ZARIP_EXPORT std::istream& operator>>(std::istream& in, HttpRequestBase& request);
ZARIP_EXPORT std::istream& operator>>(std::istream& in, HttpResponseBase& response);

}  // namespace zarip::inet
