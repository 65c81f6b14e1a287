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

/// The socket, the thread and the receive loop of a `UdpServer` or a `MulticastServer`. *Thread-safe*.
///
/// It is stopped, or it has a thread; `Stop` leads back to the first state, after which it may be started
/// again. Within the second state the loop receives (`IsRunning`) or not: before the socket is open, between
/// two attempts, and after the loop has ended by itself.
///
/// The loop holds `_loopMutex` for as long as it runs. `_mutex` is held for moments only, never while the
/// callback runs or the thread is joined. A function that needs both takes `_loopMutex` first.
class ZARIP_HIDDEN UdpServer::Impl {
public:
    Impl(const std::string& address, unsigned short port, unsigned int bufferSize, unsigned int options)
        : _address(address), _port(port), _options(options), _buffer(bufferSize) {}

    /// What a thread is made of, as in `Thread`.
    struct ThreadPlan {
        const char* name;
        UdpServer* server;
        unsigned int stackSize;
        signed char priority;
    };

    /// Opens the socket and starts the thread. Does nothing if there is a thread.
    void Start(IUdpBufferAccept* callback, const ThreadPlan& plan);

    /// Starts the thread, which opens the socket itself. Calls `prepare` and sets `isWanted` before, with the
    /// mutex held. Does nothing if there is a thread.
    template <class Prepare>
    void StartThread(IUdpBufferAccept* callback, const ThreadPlan& plan, std::atomic<bool>& isWanted,
                     Prepare prepare) {
        const MutexAutoLock lock(&_mutex);
        if (_thread != nullptr) {
            return;
        }
        _callback = callback;
        prepare();
        isWanted = true;
        try {
            MakeThread(plan);
        } catch (...) {
            isWanted = false;
            throw;
        }
    }

    /// For an attempt of the thread: opens the socket and lets the loop run, unless `isWanted` is false by
    /// then. `Stop` takes the same mutex, so it finds either no loop or one that it can end.
    bool OpenForLoop(const std::atomic<bool>& isWanted);

    /// After a failed attempt: closes the socket.
    void CloseAfterLoop();

    /// Whether there are a socket and a callback, which `Loop` needs.
    bool IsStarted() const;

    /// Whether the loop runs or is about to.
    bool IsRunning() const { return _running; }

    /// The loop has ended by itself.
    void SetEnded() { _running = false; }

    /// What happens to exceptions of the callback.
    enum class Failures { kLogAndContinue, kThrow };

    /// Receives until `Stop`. Throws if receiving has become impossible, and with `kThrow` what the callback
    /// throws.
    void Loop(Failures callbackFailures);

    enum class Stopped { kHadNoThread, kIsAsked, kHasEnded };
    /// Ends the loop and waits for the thread, unless that thread is the caller (`kIsAsked`).
    Stopped Stop();

    void AddMembership(const std::string& group);
    void DropMembership(const std::string& group);
    unsigned short GetLocalPort() const;

    /// Looked up in the constructor, because a lookup while an exception is handled may fail for lack of
    /// memory.
    const core::Logger& GetLogger() const { return _logger; }

private:
    /// Makes the socket and joins every group. If that fails, there is no socket.
    void Open() ZARIP_REQUIRES(_mutex);
    void MakeThread(const ThreadPlan& plan) ZARIP_REQUIRES(_mutex);
    bool Receive(const UdpSocket& socket, UdpSocket::Info& info, unsigned int& length)
        ZARIP_REQUIRES(_loopMutex);
    unsigned int ReceiveNewest(const UdpSocket& socket, UdpSocket::Info& info) ZARIP_REQUIRES(_loopMutex);
    void Deliver(IUdpBufferAccept& callback, unsigned int length, const UdpSocket::Info& info,
                 Failures failures) ZARIP_REQUIRES(_loopMutex);

    const std::string _address;
    const unsigned short _port;
    const unsigned int _options;
    core::Logger& _logger = *core::Logger::GetLogger("UdpServer");

    /// `Stop` clears it, and no later step of the loop sets it again.
    std::atomic<bool> _running{false};

    mutable Mutex _mutex{"UdpServer::_mutex"};
    IUdpBufferAccept* _callback ZARIP_GUARDED_BY(_mutex) = nullptr;
    std::set<std::string> _groups ZARIP_GUARDED_BY(_mutex);
    std::shared_ptr<UdpSocket> _socket ZARIP_GUARDED_BY(_mutex);
    std::unique_ptr<Thread> _thread ZARIP_GUARDED_BY(_mutex);

    Mutex _loopMutex{"UdpServer"};
    std::vector<unsigned char> _buffer ZARIP_GUARDED_BY(_loopMutex);
};

}  // namespace zarip::osa
