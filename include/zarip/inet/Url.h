// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Export.h>

namespace zarip::inet {

struct _ipaddr_t;

/// The parts of a URL, as a value type. *One thread at a time*.
///
/// `Encode` and `Decode` throw a `const char*`, which `catch (const std::exception&)` does not catch. Use
/// `catch (...)` around code that decodes strings from outside.
class ZARIP_EXPORT Url {
public:
    /// Makes a URL whose parts are empty and whose port is 0.
    Url();

    /// Splits [scheme "://"] [user [":" password] "@"] [host [":" port]] [path] ["?" query]. Nothing is
    /// decoded, and a fragment is dropped. The digits after the ':' of the host are the port, truncated to 16
    /// bits. A string without a scheme begins with the host unless it begins with '/' or '?'. Throws
    /// `std::invalid_argument` "Invalid uri: " + text.
    explicit Url(const std::string& text);

    Url(const Url& other);
    Url& operator=(const Url& other);
    ~Url();

    void swap(Url& other);

    const std::string& GetScheme() const { return _scheme; }
    const std::string& GetUser() const { return _user; }
    const std::string& GetPassword() const { return _password; }

    /// Returns the host; an IPv6 address keeps its brackets.
    const std::string& GetHost() const { return _host; }

    /// Returns the port, or 0 if it is absent.
    unsigned short GetPort() const { return _port; }

    /// Returns the path as it was written, not decoded.
    const std::string& GetPath() const { return _path; }

    /// Returns the query as it was written, without the '?'.
    const std::string& GetQuery() const { return _query; }

    /// Joins the parts again. The ':' of port 0 or of an empty password and the '?' of an empty query are
    /// left out.
    std::string ToString() const;

    /// Stores the host and the port as an address. A host in brackets is stored as the IPv6 address, any
    /// other host, which may be a name, as the IPv4 address. The other field becomes empty, and so does the
    /// field of a host that is too long for it.
    void GetIpAddr(_ipaddr_t& out) const;

    /// Replaces every byte except letters, digits and "-._~" by '%' and two hexadecimal digits. Throws the
    /// string "url_encode() failed" as a `const char*`. Deliberate: callers catch that type.
    static std::string Encode(const std::string& text);

    /// Replaces '%' and two hexadecimal digits by that byte; '+' stays. Deliberate: the result ends at the
    /// first zero byte, as in C, so callers can pass it to functions that take C strings. Throws the string
    /// "url_decode() failed" as a `const char*` if a '%' has no two digits after it. Deliberate: callers
    /// catch that type.
    static std::string Decode(const std::string& text);

private:
    std::string _scheme;
    std::string _user;
    std::string _password;
    std::string _host;
    unsigned short _port = 0;
    std::string _path;
    std::string _query;
};

}  // namespace zarip::inet
