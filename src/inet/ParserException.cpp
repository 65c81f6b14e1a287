// SPDX-License-Identifier: MIT

#include "zarip/inet/ParserException.h"

#include "inet/BadRequest.h"

namespace zarip::inet {

namespace {

/// Never destroyed: a thread may still parse while the process ends.
const ParserException& BadRequest() {
    static const auto* const exception = new ParserException("BadRequest");
    return *exception;
}

// Made when the library is loaded, so that short memory does not turn a bad request into something else.
[[maybe_unused]] const ParserException& madeAtLoad = BadRequest();

}  // namespace

void ThrowBadRequest() {
    throw ParserException(BadRequest());
}

ParserException::ParserException(const std::string& message) : _message(message) {}

ParserException::ParserException(const ParserException& other) = default;
ParserException& ParserException::operator=(const ParserException& other) = default;
ParserException::~ParserException() = default;

const char* ParserException::what() const noexcept {
    return _message.c_str();
}

void ParserException::SetLocation(const char* file, unsigned int line) {
    _file = file;
    _line = line;
}

}  // namespace zarip::inet
