// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/inet/HttpResponseBase.h>
#include <zarip/osa/Export.h>

namespace zarip::inet {

/// An HTTP response. *One thread at a time*.
///
/// Deliberate: a new response has the code 503, "Service Unavailable", so a handler that sets nothing does
/// not report success.
class ZARIP_EXPORT HttpResponse : public HttpResponseBase {
public:
    HttpResponse();
    HttpResponse(const HttpResponse& other);
    HttpResponse& operator=(const HttpResponse& other);
    ~HttpResponse() override;

    void SetCode(int code) override;
    int GetCode() const override;

    /// Returns the reason phrase of the code, or "Unknown" if it has none.
    std::string GetCodeText() const override;

private:
    int _code = 503;
};

}  // namespace zarip::inet
