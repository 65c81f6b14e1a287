// SPDX-License-Identifier: MIT

#pragma once

#include "osa/LogLimit.h"
#include "osa/SocketAddress.h"
#include "osa/UniqueFd.h"
#include "zarip/osa/TcpSocket.h"

namespace zarip::core {
class Logger;
}

namespace zarip::osa {

/// The listening end of a server. It accepts connections and survives shortages of descriptors and memory.
/// *One thread at a time*: the thread of the server's loop once `Listen` has returned.
class Listener {
public:
    /// Binds; throws what `TcpSocket` throws.
    Listener(const char* address, unsigned short port) : _socket(address, port) {}

    /// Throws SocketException "listen failed".
    /// @param backlog  connections that the kernel keeps for the server.
    /// @param keepsSilent  the kernel keeps back a TCP connection that sends nothing, for a second. Most
    ///     clients send at once and are then accepted together with their first bytes.
    void Listen(unsigned short backlog, bool keepsSilent);

    struct Accepted {
        UniqueFd fd;
        unsigned short port = 0;  ///< the pseudo port: 1,024 to 65,535, then again from 1,024
        SocketAddress peer;
    };

    enum class Result {
        kAccepted,
        kNone,   ///< no connection waits
        kShort,  ///< a descriptor or memory is missing, and no connection was accepted
        kFatal,  ///< accepting will not work again
    };
    Result Accept(Accepted& accepted);

    /// To be called after `kShort` if no connection could be closed: refuses the connection that waits,
    /// instead of leaving it there for ever. False if even that fails; then a pause is needed.
    bool Refuse();

    /// From now on clients are refused at once instead of waiting in the backlog.
    void Close() { _socket.Close(); }

    const TcpSocket& GetSocket() const { return _socket; }
    bool IsUnix() const { return _socket.GetFamily() == AF_UNIX; }

private:
    TcpSocket _socket;
    core::Logger* _logger = nullptr;
    LogLimit _logLimit;
    UniqueFd _spare;
    int _nextPort = -1;
};

}  // namespace zarip::osa
