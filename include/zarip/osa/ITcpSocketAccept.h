// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>

namespace zarip::osa {

class TcpSocket;

/// Receives the connections of a `TcpServer`.
class ZARIP_EXPORT ITcpSocketAccept {
public:
    virtual ~ITcpSocketAccept() = default;

    /// Serves a connection. *Called on TcpSocketThread*, one connection at a time, with no lock held. An
    /// exception is logged.
    /// @param socket  *takes ownership*.
    virtual void AcceptSocket(TcpSocket* socket) = 0;
};

}  // namespace zarip::osa
