// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/inet/HttpRequestBase.h>
#include <zarip/osa/Export.h>

namespace zarip::inet {

/// An HTTP request. A new one has the method `UNKW` and no name for it. *One thread at a time*.
class ZARIP_EXPORT HttpRequest : public HttpRequestBase {
public:
    /// Four characters, the first in the lowest byte.
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
    // The assignment of every derived class hides this one, as intended.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"
    virtual HttpRequest& operator=(const HttpRequest& other);
#pragma GCC diagnostic pop
    ~HttpRequest() override;

    /// The method's name. For `UNKW` the text that `SetMethodName` last got and did not know, so that a
    /// method of somebody else's passes through unchanged.
    std::string GetMethodName() const override;

    /// Any case of letters.
    void SetMethodName(const std::string& name) override;

    /// A `Method`, or any other number that was set.
    virtual unsigned int GetMethod() const;
    virtual void SetMethod(unsigned int method);

    /// `UNKW` for a name that is not known.
    static Method GetMethodByName(const std::string& name);

    /// "UNKNOWN" for `UNKW` and any other number.
    static std::string GetNameForMethod(Method method);

private:
    unsigned int _method = UNKW;
    std::string _unknownMethodName;
};

}  // namespace zarip::inet
