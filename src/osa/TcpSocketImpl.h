#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "osa/PacketCapture.h"
#include "osa/UniqueFd.h"
#include "osa/Wait.h"
#include "zarip/osa/TcpSocket.h"

namespace zarip::osa {

/// The state of a socket. A server shares it while its acceptor serves the connection, to cancel that;
/// everything but `cancel` and `aborted` belongs to the socket's user.
struct TcpSocket::Impl {
    UniqueFd fd;
    bool connected = false;
    unsigned short family = 0;
    unsigned short port = 0;
    std::string address;
    /// Ends receiving; `abort` ends sending as well.
    CancelEvent cancel;
    std::atomic<bool> aborted{false};
    MonotonicMs limit = kNever;
    /// Read by the server while it held the connection; received first.
    std::string readAhead;
    std::size_t readAheadUsed = 0;
    /// Set for the connections of a server.
    std::shared_ptr<PacketCapture> capture;

    void Abort() {
        aborted = true;
        cancel.Cancel();
    }

    unsigned int TakeReadAhead(void* buffer, unsigned int length, bool isPeek);
    unsigned int Receive(void* buffer, unsigned int length, unsigned int timeoutSeconds, int flags);
    unsigned int Send(const struct iovec* parts, int count);
};

}  // namespace zarip::osa
