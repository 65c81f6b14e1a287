// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Exception.h>

namespace zarip::osa {

/// A failed socket operation.
class ZARIP_EXPORT SocketException : public Exception {
public:
    enum SocketError {
        SocketTimeout = 0,       ///< nothing arrived, or the peer did not answer, in time
        SocketConfigError = 1,   ///< an option, a pipe or a bind address was refused
        SocketAddressError = 2,  ///< a malformed address, or sending on an unconnected socket
        SocketGeneralError = 3,  ///< every other failure
    };

    SocketException(const std::string& message, SocketError code);
    SocketException(const SocketException& other);
    SocketException& operator=(const SocketException& other);
    ~SocketException() override;

    SocketError GetError() const { return _error; }

private:
    SocketError _error;
};

}  // namespace zarip::osa
