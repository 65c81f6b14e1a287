// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/inet/InetBase.h>
#include <zarip/osa/Export.h>

namespace zarip::inet {

/// The same data as `InetBase`, as a separate type for callers that distinguish requests from responses.
class ZARIP_EXPORT Request : public InetBase {
public:
    Request();
    Request(const Request& other);
    Request& operator=(const Request& other);
    ~Request() override;
};

}  // namespace zarip::inet
