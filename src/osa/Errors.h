#pragma once

#include <cerrno>
#include <cstring>
#include <string>

#include "zarip/osa/SocketException.h"

namespace zarip::osa {

/// The system's description of an error number.
inline std::string DescribeError(int error) {
    char buffer[128];
    return ::strerror_r(error, buffer, sizeof(buffer));
}

/// Throws `text`, the number and its description as a general socket failure. For failed system calls.
[[noreturn]] inline void ThrowErrno(const char* text, int error = errno) {
    throw SocketException(
        std::string(text) + ": errno(" + std::to_string(error) + "): " + DescribeError(error),
        SocketException::SocketGeneralError);
}

}  // namespace zarip::osa
