// SPDX-License-Identifier: MIT

#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <zarip/osa/Export.h>

namespace zarip::inet {

/// The common part of HTTP requests and responses: protocol, headers and body. *One thread at a time*.
///
/// A function that would exceed a limit throws `ParserException` with the message given there and changes
/// nothing.
class ZARIP_EXPORT HttpBase {
public:
    /// Orders header names without regard to the case of ASCII letters.
    struct ZARIP_EXPORT CaseInsensitive {
        bool operator()(const std::string& left, const std::string& right) const;
    };
    using Headers = std::map<std::string, std::string, CaseInsensitive>;
    using const_iterator = Headers::const_iterator;

    HttpBase();
    HttpBase(const HttpBase& other);
    HttpBase& operator=(const HttpBase& other);
    virtual ~HttpBase();

    /// The protocol, for example "HTTP/1.1". It is empty in a new message.
    virtual std::string GetProtocol() const;

    /// Sets the protocol. Throws "proto exceeds max length" if it has more than 64 characters.
    virtual void SetProtocol(const std::string& protocol);

    /// Adds a header or replaces its value. Names are compared without regard to case, and the first spelling
    /// is kept. Throws "BadRequest" if the name has more than 256 characters or the value more than 4,096.
    /// Also throws it if either contains a carriage return, a line feed or a zero byte, because a receiver
    /// would read the bytes after it as another header.
    virtual void SetHeader(const std::string& name, const std::string& value);

    /// Returns the headers in the order of their names. The iterators are valid until the next change.
    virtual void GetHeaders(const_iterator& begin, const_iterator& end) const;

    /// Returns the body, followed by a zero byte. The pointer is valid until the next change.
    virtual const char* GetBody() const;

    /// Returns the size of the body in bytes, without that zero byte.
    virtual unsigned int GetBodyLength() const;

    /// These functions copy the body. They throw "body exceeds max length" for more than 1,048,576 bytes.
    virtual void SetBody(const char* text);
    virtual void SetBody(const char* data, unsigned int size);
    virtual void SetBody(const std::string& data);

    /// Returns the value of a header, whose name may be in any case, or null if the header is absent. The
    /// pointer is *not owned* and valid until the header is removed.
    const std::string* GetHeader(const std::string& name) const;

    void RemoveHeader(const std::string& name);

private:
    friend class HttpRequestBase;

    ZARIP_HIDDEN void StoreHeader(std::string_view name, std::string_view value);
    void StoreBody(const char* data, std::size_t size);

    std::string _protocol;
    Headers _headers;
    std::vector<char> _body;  // includes the final zero byte; empty if no body was ever set
};

}  // namespace zarip::inet
