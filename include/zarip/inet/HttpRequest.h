// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/inet/HttpRequestBase.h>
#include <zarip/osa/Export.h>

namespace zarip::inet {

/// An HTTP request. A new request has the method `UNKW` and an empty method name. *One thread at a time*.
class ZARIP_EXPORT HttpRequest : public HttpRequestBase {
public:
    /// Each value consists of four characters, the first of them in the lowest byte.
    enum Method : unsigned int {
        HGET = 0x54454748,
        POST = 0x54534F50,
        HEAD = 0x44414548,
        HPUT = 0x54555048,
        TRCE = 0x45435254,
        DELE = 0x454C4544,
        OPTS = 0x5354504F,
        CONN = 0x4E4E4F43,
        PATC = 0x43544150,
        SUBS = 0x53425553,
        UNSU = 0x55534E55,
        UNKW = 0x574B4E55,
    };

    HttpRequest();
    HttpRequest(const HttpRequest& other);
    using HttpRequestBase::operator=;
    // Deliberate: the assignment operators of derived classes hide this one.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"
    virtual HttpRequest& operator=(const HttpRequest& other);
#pragma GCC diagnostic pop
    ~HttpRequest() override;

    /// Returns the method's name. For `UNKW` this is the last unknown name that was passed to
    /// `SetMethodName`, so an extension method passes through unchanged.
    std::string GetMethodName() const override;

    /// Sets the method by its name, which may be in any case.
    void SetMethodName(const std::string& name) override;

    /// Returns a `Method`, or any other number that was set.
    virtual unsigned int GetMethod() const;
    virtual void SetMethod(unsigned int method);

    /// Returns `UNKW` for an unknown name.
    static Method GetMethodByName(const std::string& name);

    /// Returns "UNKNOWN" for `UNKW` and for numbers that are not a `Method`.
    static std::string GetNameForMethod(Method method);

private:
    unsigned int _method = UNKW;
    std::string _unknownMethodName;
};

}  // namespace zarip::inet
