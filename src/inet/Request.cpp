// SPDX-License-Identifier: MIT

#include "zarip/inet/Request.h"

namespace zarip::inet {

Request::Request() = default;
Request::Request(const Request& other) = default;
Request& Request::operator=(const Request& other) = default;
Request::~Request() = default;

}  // namespace zarip::inet
