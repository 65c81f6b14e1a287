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

/// The base class of requests. A derived class defines the methods. *One thread at a time*.
///
/// Getters that return a pointer return null if there is no such entry. The pointers are *not owned* and
/// valid until the entry changes.
class ZARIP_EXPORT HttpRequestBase : public InetBase, public HttpBase {
public:
    HttpRequestBase();
    HttpRequestBase(const HttpRequestBase& other);
    // Deliberate: the assignment operators of derived classes hide this one.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"
    virtual HttpRequestBase& operator=(const HttpRequestBase& other);
#pragma GCC diagnostic pop
    ~HttpRequestBase() override;

    virtual std::string GetMethodName() const = 0;
    virtual void SetMethodName(const std::string& name) = 0;

    /// Returns the decoded path.
    virtual const std::string& GetPath() const;
    virtual void SetPath(const std::string& path);

    /// Returns the query as it was sent, not decoded.
    virtual const std::string& GetQueryString() const;

    /// Sets the query string only; the parameters do not change.
    virtual void SetQueryString(const std::string& query);

    /// A header named "Cookie", such as "a=1; b=2", also sets cookies. Their values are not decoded; an empty
    /// value removes its cookie, and a piece without a name or '=' is skipped. The cookies of several such
    /// headers accumulate; more than 10,000 throw "BadRequest".
    void SetHeader(const std::string& name, const std::string& value) override;

    /// Parameter names are stored in upper case and found in any case.
    virtual const std::string* GetQueryParameter(const std::string& name) const;
    virtual void SetQueryParameter(const std::string& name, const std::string& value);
    virtual void RemoveQueryParameter(const std::string& name);
    virtual const std::string* GetFormParameter(const std::string& name) const;
    virtual void SetFormParameter(const std::string& name, const std::string& value);
    virtual void RemoveFormParameter(const std::string& name);

    /// Returns the form's parameter if it exists, otherwise the query's.
    virtual const std::string* GetFormOrQueryParameter(const std::string& name) const;

    /// Cookie names are case-sensitive.
    const std::string* GetCookie(const std::string& name) const;

    /// Sets a cookie; an empty value removes it.
    void SetCookie(const std::string& name, const std::string& value);

    /// Sets the decoded path, the query string with its parameters, and the header "HOST" from a URL. Throws
    /// what `Url::Decode` and `HttpParser::ParseQuery` throw; parameters before a malformed one stay.
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
