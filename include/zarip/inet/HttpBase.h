// SPDX-License-Identifier: MIT

#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <zarip/osa/Export.h>

namespace zarip::inet {

/// What HTTP requests and responses have in common: protocol, headers and body. *One thread at a time*.
///
/// A limit that is passed throws `ParserException` with the text given at the function; the message then is
/// as before.
class ZARIP_EXPORT HttpBase {
public:
    /// Orders header names without regard to the case of letters.
    struct ZARIP_EXPORT CaseInsensitive {
        bool operator()(const std::string& left, const std::string& right) const;
    };
    using Headers = std::map<std::string, std::string, CaseInsensitive>;
    using const_iterator = Headers::const_iterator;

    HttpBase();
    HttpBase(const HttpBase& other);
    HttpBase& operator=(const HttpBase& other);
    virtual ~HttpBase();

    /// Such as "HTTP/1.1"; initially empty.
    virtual std::string GetProtocol() const;

    /// Throws "proto exceeds max length" for more than 64 characters.
    virtual void SetProtocol(const std::string& protocol);

    /// Sets or adds a header. A name that is here in any case of letters keeps its first spelling. Throws
    /// "BadRequest" for a name of more than 256 characters, a value of more than 4,096, and for a carriage
    /// return, line feed or zero byte in either: they would end the header in the middle of it, and what
    /// follows would be read as the next ones.
    virtual void SetHeader(const std::string& name, const std::string& value);

    /// The headers in the order of their names. Valid until the next change.
    virtual void GetHeaders(const_iterator& begin, const_iterator& end) const;

    /// The bytes of the body with a zero byte behind the last; valid until the next change.
    virtual const char* GetBody() const;

    /// In bytes, without that zero byte.
    virtual unsigned int GetBodyLength() const;

    /// These throw "body exceeds max length" for more than 1,048,576 bytes.
    virtual void SetBody(const char* text);
    virtual void SetBody(const char* data, unsigned int size);
    virtual void SetBody(const std::string& data);

    /// The header of that name in any case; null when absent. *Not owned*, valid until it is removed.
    const std::string* GetHeader(const std::string& name) const;

    void RemoveHeader(const std::string& name);

private:
    friend class HttpRequestBase;

    ZARIP_HIDDEN void StoreHeader(std::string_view name, std::string_view value);
    void StoreBody(const char* data, std::size_t size);

    std::string _protocol;
    Headers _headers;
    std::vector<char> _body;  // with its zero byte; empty for a message that never had a body
};

}  // namespace zarip::inet
