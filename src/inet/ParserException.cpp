// SPDX-License-Identifier: MIT

#include "zarip/inet/ParserException.h"

namespace zarip::inet {

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
