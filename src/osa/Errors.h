// SPDX-License-Identifier: MIT

#pragma once

#include <cerrno>
#include <cstring>
#include <string>

#include "zarip/osa/IOException.h"
#include "zarip/osa/SocketException.h"

namespace zarip::osa {

/// The system's description of an error number.
inline std::string DescribeError(int error) {
    char buffer[128];
    return ::strerror_r(error, buffer, sizeof(buffer));
}

inline std::string WithErrno(const std::string& text, int error) {
    return text + ": errno(" + std::to_string(error) + "): " + DescribeError(error);
}

/// Throws `text`, the error number and its description as a general socket failure. For failed system calls.
[[noreturn]] inline void ThrowErrno(const char* text, int error = errno) {
    throw SocketException(WithErrno(text, error), SocketException::SocketGeneralError);
}

/// The same as a failure of input or output. The message is passed in pieces, because building it could
/// change errno.
[[noreturn]] inline void ThrowIOErrno(const char* text, int error = errno) {
    throw IOException(WithErrno(text, error));
}
[[noreturn]] inline void ThrowIOErrno(const char* what, const std::string& name, int error = errno) {
    throw IOException(WithErrno(what + (" '" + name + "'"), error));
}

}  // namespace zarip::osa
