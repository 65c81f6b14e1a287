// SPDX-License-Identifier: MIT

#pragma once

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "zarip/core/Logger.h"
#include "zarip/osa/MutexAutoLock.h"
#include "zarip/osa/Thread.h"
#include "zarip/osa/UdpServer.h"
#include "zarip/osa/UdpSocket.h"

namespace zarip::osa {

/// What a `UdpServer` and a `MulticastServer` share.
///
/// `_loopMutex` is held by the loop for as long as it runs, `_mutex` only for moments and never while the
/// callback runs or the thread is joined; of the two the loop's is taken first.
class ZARIP_HIDDEN UdpServer::Impl {
public:
    Impl(const std::string& address, unsigned short port, unsigned int bufferSize, unsigned int options)
        : _address(address), _port(port), _options(options), _buffer(bufferSize) {}

    /// Makes the socket and joins every group; on failure there is no socket.
    void Open() ZARIP_REQUIRES(_mutex);

    void StartThread(const char* name, UdpServer* server, unsigned int stackSize, signed char priority)
        ZARIP_REQUIRES(_mutex);

    /// Whether there are a socket and a callback, as `Loop` needs.
    bool IsStarted() const;

    /// What happens to exceptions of the callback.
    enum class Failures { kLogAndGoOn, kThrow };

    /// Throws what makes receiving impossible, and with `kThrow` what the callback throws.
    void Loop(Failures callbackFailures);

    enum class Stopped { kHadNoThread, kIsAsked, kHasEnded };
    Stopped Stop();

    const std::string _address;
    const unsigned short _port;
    const unsigned int _options;

    /// Whether the loop runs or is about to; cleared by `Stop`, which no later step of the loop takes back.
    std::atomic<bool> _running{false};

    /// Looked up here, because an exception handler that looks it up may fail for lack of memory.
    core::Logger& _logger = *core::Logger::GetLogger("UdpServer");

    mutable Mutex _mutex{"UdpServer::_mutex"};
    IUdpBufferAccept* _callback ZARIP_GUARDED_BY(_mutex) = nullptr;
    std::set<std::string> _groups ZARIP_GUARDED_BY(_mutex);
    std::shared_ptr<UdpSocket> _socket ZARIP_GUARDED_BY(_mutex);
    std::unique_ptr<Thread> _thread ZARIP_GUARDED_BY(_mutex);

private:
    bool Receive(const UdpSocket& socket, UdpSocket::Info& info, unsigned int& length)
        ZARIP_REQUIRES(_loopMutex);
    unsigned int ReceiveNewest(const UdpSocket& socket, UdpSocket::Info& info) ZARIP_REQUIRES(_loopMutex);
    void Deliver(IUdpBufferAccept& callback, unsigned int length, const UdpSocket::Info& info,
                 Failures failures) ZARIP_REQUIRES(_loopMutex);

    Mutex _loopMutex{"UdpServer"};
    std::vector<unsigned char> _buffer ZARIP_GUARDED_BY(_loopMutex);
};

}  // namespace zarip::osa
