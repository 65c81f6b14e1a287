// SPDX-License-Identifier: MIT

#include "zarip/inet/IHttpStreamHandler.h"

#include "zarip/inet/HttpResponse.h"

namespace zarip::inet {

void IHttpStreamHandler::HandleRequest(const HttpRequest& /*request*/, HttpResponse& response) {
    response.SetCode(501);
}

}  // namespace zarip::inet
