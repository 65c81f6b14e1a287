// SPDX-License-Identifier: MIT

#include "zarip/inet/Response.h"

namespace zarip::inet {

Response::Response() = default;
Response::Response(const Response& other) = default;
Response& Response::operator=(const Response& other) = default;
Response::~Response() = default;

}  // namespace zarip::inet
