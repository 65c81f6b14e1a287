// SPDX-License-Identifier: MIT

#pragma once

#include <map>
#include <string>
#include <string_view>

#include <zarip/inet/HttpBase.h>
#include <zarip/inet/InetBase.h>
#include <zarip/osa/Export.h>

namespace zarip::inet {

class Url;

/// A request whose kinds of methods a derived class knows. *One thread at a time*.
///
/// Pointers that getters return are *not owned* and valid until that entry changes; null when there is none.
class ZARIP_EXPORT HttpRequestBase : public InetBase, public HttpBase {
public:
    HttpRequestBase();
    HttpRequestBase(const HttpRequestBase& other);
    // The assignment of every derived class hides this one, as intended.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"
    virtual HttpRequestBase& operator=(const HttpRequestBase& other);
#pragma GCC diagnostic pop
    ~HttpRequestBase() override;

    virtual std::string GetMethodName() const = 0;
    virtual void SetMethodName(const std::string& name) = 0;

    /// Decoded.
    virtual const std::string& GetPath() const;
    virtual void SetPath(const std::string& path);

    /// As it was sent, not decoded.
    virtual const std::string& GetQueryString() const;

    /// Sets the text alone; the parameters stay.
    virtual void SetQueryString(const std::string& query);

    /// A header named "Cookie" also sets cookies: "a=1; b=2". Values are taken as they are; an empty one
    /// removes its cookie, and a piece without name or '=' is skipped. Cookies of several such headers add
    /// up, to 10,000 at the most: more throw "BadRequest".
    void SetHeader(const std::string& name, const std::string& value) override;

    /// Names of parameters are kept in upper case and found in any.
    virtual const std::string* GetQueryParameter(const std::string& name) const;
    virtual void SetQueryParameter(const std::string& name, const std::string& value);
    virtual void RemoveQueryParameter(const std::string& name);
    virtual const std::string* GetFormParameter(const std::string& name) const;
    virtual void SetFormParameter(const std::string& name, const std::string& value);
    virtual void RemoveFormParameter(const std::string& name);

    /// The form's parameter where there is one, otherwise the query's.
    virtual const std::string* GetFormOrQueryParameter(const std::string& name) const;

    /// Names of cookies are exact.
    const std::string* GetCookie(const std::string& name) const;

    /// An empty value removes the cookie.
    void SetCookie(const std::string& name, const std::string& value);

    /// Sets the path to the URL's, decoded; the query string, and the parameters in it; and the header
    /// "HOST". Throws what `Url::Decode` and `HttpParser::ParseQuery` throw; parameters before a wrong one
    /// stay.
    void SetUrl(const Url& url);

private:
    friend class HttpParser;
    using Values = std::map<std::string, std::string>;

    ZARIP_HIDDEN void StoreRequestHeader(std::string_view name, std::string_view value);
    void ParseCookies(const std::string& text);

    std::string _path;
    std::string _queryString;
    Values _cookies;
    Values _queryParameters;
    Values _formParameters;
};

}  // namespace zarip::inet
