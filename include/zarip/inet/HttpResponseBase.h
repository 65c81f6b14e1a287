// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/inet/HttpBase.h>
#include <zarip/inet/InetBase.h>
#include <zarip/osa/Export.h>

namespace zarip::inet {

/// The base class of responses. A derived class defines the codes. *One thread at a time*.
class ZARIP_EXPORT HttpResponseBase : public InetBase, public HttpBase {
public:
    HttpResponseBase();
    HttpResponseBase(const HttpResponseBase& other);

    virtual void SetCode(int code) = 0;
    virtual int GetCode() const = 0;
    virtual std::string GetCodeText() const = 0;

    /// These functions also set the header "Content-Length".
    void SetBody(const char* text) override;
    void SetBody(const char* data, unsigned int size) override;
    void SetBody(const std::string& data) override;

    // Deliberate: the assignment operators of derived classes hide this one.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"
    virtual HttpResponseBase& operator=(const HttpResponseBase& other);
#pragma GCC diagnostic pop
    ~HttpResponseBase() override;

private:
    void SetContentLength();
};

}  // namespace zarip::inet
