// SPDX-License-Identifier: MIT

#include "zarip/osa/IOException.h"
#include "zarip/osa/LockException.h"
#include "zarip/osa/Signal.h"
#include "zarip/osa/SocketException.h"

namespace zarip::osa {

IOException::IOException(const std::string& message) : Exception(message) {}
IOException::IOException(const IOException& other) = default;
IOException& IOException::operator=(const IOException& other) = default;
IOException::~IOException() = default;

LockException::LockException(const std::string& message, LockError code) : Exception(message), _error(code) {}
LockException::LockException(const LockException& other) = default;
LockException& LockException::operator=(const LockException& other) = default;
LockException::~LockException() = default;

SocketException::SocketException(const std::string& message, SocketError code)
    : Exception(message), _error(code) {}
SocketException::SocketException(const SocketException& other) = default;
SocketException& SocketException::operator=(const SocketException& other) = default;
SocketException::~SocketException() = default;

Signal::Signal(int signalNumber) : Exception("signal: %d", signalNumber), _signal(signalNumber) {}
Signal::Signal(const Signal& other) = default;
Signal& Signal::operator=(const Signal& other) = default;
Signal::~Signal() = default;

}  // namespace zarip::osa
