// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Export.h>

namespace zarip::inet {

struct _ipaddr_t;

/// The parts of a URL. A value: copied, assigned and swapped. *One thread at a time*.
///
/// `Encode` and `Decode` throw a bare text (`const char*`), which `catch (const std::exception&)` lets
/// through: where text from outside is decoded, the last handler is `catch (...)`.
class ZARIP_EXPORT Url {
public:
    /// All parts are empty and the port is 0.
    Url();

    /// Splits [scheme "://"] [user [":" password] "@"] [host [":" port]] [path] ["?" query]; nothing is
    /// decoded, and a fragment is dropped. Digits behind the ':' of the host are the port, in 16 bits. Text
    /// without a scheme begins with the host, unless it begins with '/' or '?'. Throws
    /// `std::invalid_argument` "Invalid uri: " + text.
    explicit Url(const std::string& text);

    Url(const Url& other);
    Url& operator=(const Url& other);
    ~Url();

    void swap(Url& other);

    const std::string& GetScheme() const { return _scheme; }
    const std::string& GetUser() const { return _user; }
    const std::string& GetPassword() const { return _password; }

    /// An IPv6 address keeps its brackets.
    const std::string& GetHost() const { return _host; }

    /// 0 when absent.
    unsigned short GetPort() const { return _port; }

    /// As written, not decoded.
    const std::string& GetPath() const { return _path; }

    /// As written, without the '?'.
    const std::string& GetQuery() const { return _query; }

    /// The text again, without the ':' of port 0, of an empty password, and without an empty query's '?'.
    std::string ToString() const;

    /// The host as an address: what stands in brackets is the IPv6 text, any other host the IPv4 text or a
    /// name. A text that is longer than its field stays empty, and so does the other one.
    void GetIpAddr(_ipaddr_t& out) const;

    /// Writes every byte but letters, digits and "-._~" as '%' and two hexadecimal digits. Throws the text
    /// "url_encode() failed" itself, a `const char*`; deliberate: callers catch it as that.
    static std::string Encode(const std::string& text);

    /// Turns '%' and two hexadecimal digits into that byte; '+' stays. Deliberate: the result ends at the
    /// first zero byte, as in C, so callers may hand it to functions that take C strings. Throws the text
    /// "url_decode() failed" itself, a `const char*`, when a '%' lacks its digits; deliberate: callers catch
    /// it as that.
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
