// SPDX-License-Identifier: MIT

#include "zarip/osa/MulticastServer.h"

#include <cxxabi.h>

#include <algorithm>
#include <atomic>
#include <exception>

#include "osa/UdpServerImpl.h"
#include "osa/Wait.h"
#include "zarip/core/Event.h"
#include "zarip/osa/Exception.h"

namespace zarip::osa {

namespace {

constexpr unsigned int kMinStackSize = 32'768;

}  // namespace

/// What a `MulticastServer` adds; the thread and the socket are the base's.
///
/// `_started` is set by `Start` alone. It is looked at under the base's mutex before the loop may run, and
/// `Stop` clears it before it takes that mutex, so a stop is never missed.
class ZARIP_HIDDEN MulticastServer::MulticastImpl {
public:
    MulticastImpl(unsigned int attempts, TimeSpan earlyPause, TimeSpan latePause)
        : _attempts(attempts), _earlyPause(earlyPause), _latePause(latePause) {}

    bool Pause(unsigned int failures);

    const unsigned int _attempts;
    const TimeSpan _earlyPause;
    const TimeSpan _latePause;
    core::Event0 _onStart;
    core::Event0 _onError;
    core::Logger& _logger = *core::Logger::GetLogger("MulticastServer");
    std::atomic<bool> _started{false};
    /// Of the present run; made before its thread, and again only when that has ended.
    std::unique_ptr<CancelEvent> _stopEvent = std::make_unique<CancelEvent>();
};

/// False when the server is to stop.
bool MulticastServer::MulticastImpl::Pause(unsigned int failures) {
    const unsigned int half = _attempts / 2 + _attempts % 2;
    const TimeSpan pause = failures <= half ? _earlyPause : _latePause;
    WaitResult result{};
    WaitForEither({-1, 0}, {-1, 0}, _stopEvent.get(), NowMs() + pause.GetTotalMilliseconds(), result);
    return _started;
}

MulticastServer::MulticastServer(const std::string& address, unsigned short port, unsigned int bufferSize,
                                 unsigned int options, unsigned int attempts, TimeSpan earlyPause,
                                 TimeSpan latePause)
    : UdpServer(address, port, bufferSize, options),
      _multicast(std::make_unique<MulticastImpl>(attempts, earlyPause, latePause)) {}

MulticastServer::~MulticastServer() {
    try {
        MulticastServer::Stop();
    } catch (...) {
        // Nothing more can be done for the thread.
    }
}

void MulticastServer::Start(IUdpBufferAccept* callback, unsigned int stackSize, signed char priority) {
    if (callback == nullptr) {
        throw Exception("MulticastServer::Start(): pCallback was NULL");
    }
    const MutexAutoLock lock(&_impl->_mutex);
    if (_impl->_thread != nullptr) {
        return;
    }
    _impl->_callback = callback;
    _multicast->_stopEvent = std::make_unique<CancelEvent>();
    _multicast->_started = true;
    try {
        _impl->StartThread("MulticastSocketThread", this, std::max(stackSize, kMinStackSize), priority);
    } catch (...) {
        _multicast->_started = false;
        throw;
    }
}

void MulticastServer::Run() {
    for (unsigned int failures = 0; _multicast->_started;) {
        try {
            {
                const MutexAutoLock lock(&_impl->_mutex);
                _impl->Open();
                if (!_multicast->_started) {
                    return;
                }
                _impl->_running = true;
            }
            FireOnStartEvents();
            _impl->Loop(Impl::Failures::kThrow);
            return;
        } catch (const abi::__forced_unwind&) {
            _impl->_running = false;
            throw;  // pthread_exit ends the thread
        } catch (const std::exception& e) {
            _multicast->_logger.Error("Failed to start MulticastServer, reason: %s", e.what());
        } catch (...) {
            _multicast->_logger.Error("Failed to start MulticastServer for unknown reason");
        }
        {
            const MutexAutoLock lock(&_impl->_mutex);
            _impl->_running = false;
            _impl->_socket.reset();
        }
        if (++failures >= _multicast->_attempts) {
            break;
        }
        if (!_multicast->Pause(failures)) {
            return;
        }
    }
    if (!_multicast->_started) {
        return;
    }
    try {
        FireOnErrorEvents();
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& e) {
        _multicast->_logger.Error("Caught exception telling of the failure: %s", e.what());
    } catch (...) {
        _multicast->_logger.Error("Caught exception telling of the failure: unknown");
    }
}

void MulticastServer::Stop() {
    _multicast->_started = false;
    _multicast->_stopEvent->Cancel();
    if (_impl->Stop() == Impl::Stopped::kHasEnded) {
        _multicast->_logger.Error("Thread should have been stoped by now!");
    }
}

void MulticastServer::AddOnStartDelegate(core::IVoidDelegate0* delegate) {
    _multicast->_onStart.AddDelegate(delegate);
}

void MulticastServer::AddOnErrorDelegate(core::IVoidDelegate0* delegate) {
    _multicast->_onError.AddDelegate(delegate);
}

void MulticastServer::RemoveOnStartDelegate(void* object) {
    _multicast->_onStart.RemoveDelegate(object);
}

void MulticastServer::RemoveOnErrorDelegate(void* object) {
    _multicast->_onError.RemoveDelegate(object);
}

void MulticastServer::FireOnStartEvents() const {
    _multicast->_onStart.FireEvent();
}

void MulticastServer::FireOnErrorEvents() const {
    _multicast->_onError.FireEvent();
}

}  // namespace zarip::osa
