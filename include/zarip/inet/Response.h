// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/inet/InetBase.h>
#include <zarip/osa/Export.h>

namespace zarip::inet {

/// The same data as `InetBase`, as a separate type for callers that distinguish requests from responses.
class ZARIP_EXPORT Response : public InetBase {
public:
    Response();
    Response(const Response& other);
    Response& operator=(const Response& other);
    ~Response() override;
};

}  // namespace zarip::inet
