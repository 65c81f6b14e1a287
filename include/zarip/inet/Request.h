// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/inet/InetBase.h>
#include <zarip/osa/Export.h>

namespace zarip::inet {

/// `InetBase` as a type of its own, for callers that tell requests from responses.
class ZARIP_EXPORT Request : public InetBase {
public:
    Request();
    Request(const Request& other);
    Request& operator=(const Request& other);
    ~Request() override;
};

}  // namespace zarip::inet
