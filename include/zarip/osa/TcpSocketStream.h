// SPDX-License-Identifier: MIT

#pragma once

#include <iostream>

#include <zarip/osa/Export.h>
#include <zarip/osa/TcpSocketStreamBuf.h>

namespace zarip::osa {

/// A stream on a connected socket. *One thread at a time.*
class ZARIP_EXPORT TcpSocketStream : public std::iostream {
public:
    /// @param socket  *not owned*, must outlive the stream. The time-out of a read is 5 seconds.
    explicit TcpSocketStream(TcpSocket* socket);
    TcpSocketStream(TcpSocket* socket, unsigned int timeoutSeconds, unsigned int bufferSize = 256);
    ~TcpSocketStream() override;

private:
    TcpSocketStreamBuf _buffer;
};

}  // namespace zarip::osa
