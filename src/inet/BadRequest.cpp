// SPDX-License-Identifier: MIT

#include "inet/BadRequest.h"

#include "zarip/inet/ParserException.h"

namespace zarip::inet {

namespace {

/// Never destroyed: a thread may still parse while the process ends.
const ParserException& BadRequest() {
    static const auto* const exception = new ParserException("BadRequest");
    return *exception;
}

// Made when the library is loaded, so that a lack of memory does not turn a bad request into another error.
[[maybe_unused]] const ParserException& madeAtLoad = BadRequest();

}  // namespace

void ThrowBadRequest() {
    throw ParserException(BadRequest());
}

}  // namespace zarip::inet
