// SPDX-License-Identifier: MIT

#include "zarip/osa/MulticastServer.h"

#include <cxxabi.h>

#include <algorithm>
#include <atomic>

#include "osa/DescribeCaught.h"
#include "osa/UdpServerImpl.h"
#include "osa/Wait.h"
#include "zarip/core/Event.h"
#include "zarip/osa/Exception.h"

namespace zarip::osa {

namespace {

constexpr unsigned int kMinStackSize = 32'768;

}  // namespace

/// What a `MulticastServer` adds to the base, which has the thread and the socket.
///
/// `started` is set by `Start` alone. The base looks at it with its mutex held before the loop may run, and
/// `Stop` clears it before it takes that mutex, so a stop is never missed.
struct ZARIP_HIDDEN MulticastServer::Impl {
    /// False if the server is to stop.
    bool PauseAfter(unsigned int failures) const {
        const unsigned int half = attempts / 2 + attempts % 2;
        Pause((failures <= half ? earlyPause : latePause).GetTotalMilliseconds(), stopEvent.get());
        return started;
    }

    const unsigned int attempts;
    const TimeSpan earlyPause;
    const TimeSpan latePause;
    core::Event0 onStart{};
    core::Event0 onError{};
    core::Logger& logger = *core::Logger::GetLogger("MulticastServer");
    std::atomic<bool> started{false};
    /// Of the present run: made before its thread, and replaced only after that has ended.
    std::unique_ptr<CancelEvent> stopEvent = std::make_unique<CancelEvent>();
};

MulticastServer::MulticastServer(const std::string& address, unsigned short port, unsigned int bufferSize,
                                 unsigned int options, unsigned int attempts, TimeSpan earlyPause,
                                 TimeSpan latePause)
    : UdpServer(address, port, bufferSize, options), _multicast(new Impl{attempts, earlyPause, latePause}) {}

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
    _impl->StartThread(
        callback, {"MulticastSocketThread", this, std::max(stackSize, kMinStackSize), priority},
        _multicast->started, [this] { _multicast->stopEvent = std::make_unique<CancelEvent>(); });
}

bool MulticastServer::RunOnce() {
    try {
        if (_impl->OpenForLoop(_multicast->started)) {
            FireOnStartEvents();
            _impl->Loop(UdpServer::Impl::Failures::kThrow);
        }
        return true;
    } catch (const abi::__forced_unwind&) {
        _impl->SetEnded();
        throw;  // pthread_exit ends the thread
    } catch (const std::exception& e) {
        _multicast->logger.Error("Failed to start MulticastServer, reason: %s", e.what());
    } catch (...) {
        _multicast->logger.Error("Failed to start MulticastServer for unknown reason");
    }
    _impl->CloseAfterLoop();
    return false;
}

void MulticastServer::Run() {
    for (unsigned int failures = 0; _multicast->started;) {
        if (RunOnce()) {
            return;
        }
        if (++failures >= _multicast->attempts) {
            break;
        }
        if (!_multicast->PauseAfter(failures)) {
            return;
        }
    }
    if (!_multicast->started) {
        return;
    }
    try {
        FireOnErrorEvents();
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
        _multicast->logger.Error("Caught exception telling of the failure: %s", DescribeCaught());
    }
}

void MulticastServer::Stop() {
    _multicast->started = false;
    _multicast->stopEvent->Cancel();
    if (_impl->Stop() == UdpServer::Impl::Stopped::kHasEnded) {
        _multicast->logger.Error("Thread should have been stoped by now!");
    }
}

void MulticastServer::AddOnStartDelegate(core::IVoidDelegate0* delegate) {
    _multicast->onStart.AddDelegate(delegate);
}

void MulticastServer::AddOnErrorDelegate(core::IVoidDelegate0* delegate) {
    _multicast->onError.AddDelegate(delegate);
}

void MulticastServer::RemoveOnStartDelegate(void* object) {
    _multicast->onStart.RemoveDelegate(object);
}

void MulticastServer::RemoveOnErrorDelegate(void* object) {
    _multicast->onError.RemoveDelegate(object);
}

void MulticastServer::FireOnStartEvents() const {
    _multicast->onStart.FireEvent();
}

void MulticastServer::FireOnErrorEvents() const {
    _multicast->onError.FireEvent();
}

}  // namespace zarip::osa
