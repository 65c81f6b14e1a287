// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>
#include <zarip/osa/UdpSocket.h>

namespace zarip::osa {

/// Receives the datagrams of a `UdpServer`.
class ZARIP_EXPORT IUdpBufferAccept {
public:
    virtual ~IUdpBufferAccept() = default;

    /// *Called on UdpSocketThread* or *MulticastSocketThread*, one datagram at a time. The mutex "UdpServer",
    /// which only the receive loop takes, is held. An exception is logged, and a `UdpServer` continues. A
    /// `MulticastServer` closes its socket and begins its next attempt; after the last attempt it receives
    /// nothing more. Catch everything here, because anybody can send a datagram that a parser refuses.
    /// @param buffer  *not owned*, valid during the call.
    /// @param length  in bytes; 0 for an empty datagram.
    virtual void AcceptBuffer(const unsigned char* buffer, unsigned int length,
                              const UdpSocket::Info& info) = 0;
};

}  // namespace zarip::osa
