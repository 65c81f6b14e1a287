// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/inet/InetBase.h>
#include <zarip/osa/Export.h>

namespace zarip::inet {

/// `InetBase` as a type of its own, for callers that tell requests from responses.
class ZARIP_EXPORT Response : public InetBase {
public:
    Response();
    Response(const Response& other);
    Response& operator=(const Response& other);
    ~Response() override;
};

}  // namespace zarip::inet
