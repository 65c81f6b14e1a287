// SPDX-License-Identifier: MIT

#pragma once

#include <pthread.h>

#include <atomic>
#include <memory>
#include <string>

#include "osa/PacketCapture.h"
#include "osa/UniqueFd.h"
#include "osa/Wait.h"
#include "zarip/osa/TcpSocket.h"

namespace zarip::osa {

/// The state of a socket. Everything except `cancel` and `isServed` belongs to the thread that uses the
/// socket.
struct ZARIP_HIDDEN TcpSocket::Impl {
    UniqueFd fd;
    bool connected = false;
    unsigned short family = 0;
    unsigned short port = 0;
    /// The size that `SetBufferSize` has set, for the sockets that `Connect` makes; 0 if it was not called.
    unsigned int bufferSize = 0;
    std::string address;
    /// Ends receiving.
    CancelEvent cancel;
    MonotonicMs limit = kNever;
    /// Bytes that the server has read while it held the connection. They are received first.
    std::string readAhead;
    std::size_t readAheadUsed = 0;
    /// Whether what was read ahead is in the capture already.
    bool isReadAheadCaptured = false;
    /// Set for the connections of a server.
    std::shared_ptr<PacketCapture> capture;

    /// The stop of the server whose acceptor serves this connection. It ends operations of that thread only,
    /// so a connection that was passed to another thread stays open.
    std::shared_ptr<CancelEvent> serverStop;
    pthread_t servedBy{};
    std::atomic<bool> isServed{false};

    CancelEvent* GetServerStop() const {
        return isServed && ::pthread_equal(servedBy, ::pthread_self()) != 0 ? serverStop.get() : nullptr;
    }
    bool IsServerStopped() const {
        const CancelEvent* const stop = GetServerStop();
        return stop != nullptr && stop->IsCancelled();
    }

    unsigned int TakeReadAhead(void* buffer, unsigned int length, bool isPeek);
    unsigned int Receive(void* buffer, unsigned int length, unsigned int timeoutSeconds, int flags);
    unsigned int Send(const struct iovec* parts, int count);
};

/// Makes sockets of connections that a server of another layer has accepted.
class AcceptedSocket {
public:
    struct Origin {
        UniqueFd fd;
        unsigned short family = 0;
        unsigned short port = 0;  ///< the pseudo port
        std::string readAhead;    ///< in the capture already
        std::shared_ptr<PacketCapture> capture;
    };
    static std::unique_ptr<TcpSocket> Make(Origin origin);
};

}  // namespace zarip::osa
