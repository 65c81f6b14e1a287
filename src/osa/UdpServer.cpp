// SPDX-License-Identifier: MIT

#include "zarip/osa/UdpServer.h"

#include <cxxabi.h>

#include <utility>

#include "osa/DescribeCaught.h"
#include "osa/UdpServerImpl.h"
#include "zarip/osa/IUdpBufferAccept.h"
#include "zarip/osa/SocketException.h"

namespace zarip::osa {

namespace {

constexpr unsigned int kStackSize = 1'024;

}  // namespace

void UdpServer::Impl::Open() {
    auto socket = std::make_shared<UdpSocket>(_address.c_str(), _port, static_cast<signed char>(1));
    for (const std::string& group : _groups) {
        socket->AddMembership(group.c_str());
    }
    _socket = std::move(socket);
}

void UdpServer::Impl::MakeThread(const ThreadPlan& plan) {
    auto thread = std::make_unique<Thread>(plan.name, plan.server, plan.stackSize, plan.priority);
    thread->Run();
    _thread = std::move(thread);
}

void UdpServer::Impl::Start(IUdpBufferAccept* callback, const ThreadPlan& plan) {
    const MutexAutoLock lock(&_mutex);
    if (_thread != nullptr) {
        return;
    }
    Open();
    _callback = callback;
    _running = true;
    try {
        MakeThread(plan);
    } catch (...) {
        _running = false;
        _socket.reset();
        throw;
    }
}

bool UdpServer::Impl::OpenForLoop(const std::atomic<bool>& isWanted) {
    const MutexAutoLock lock(&_mutex);
    Open();
    if (!isWanted) {
        return false;
    }
    _running = true;
    return true;
}

void UdpServer::Impl::CloseAfterLoop() {
    const MutexAutoLock lock(&_mutex);
    _running = false;
    _socket.reset();
}

unsigned int UdpServer::Impl::ReceiveNewest(const UdpSocket& socket, UdpSocket::Info& info) {
    const auto size = static_cast<unsigned int>(_buffer.size());
    unsigned int length = socket.RecvFrom(_buffer.data(), size, info, kWaitForEver);
    if ((_options & kNewestOnly) != 0) {
        while (_running && socket.ReceiveWaiting(_buffer.data(), size, info, length)) {
        }
    }
    return length;
}

/// False if nothing was received; the loop then checks whether it still runs.
bool UdpServer::Impl::Receive(const UdpSocket& socket, UdpSocket::Info& info, unsigned int& length) {
    try {
        length = ReceiveNewest(socket, info);
        return true;
    } catch (const std::exception& e) {
        if (!_running) {
            return false;  // `Stop` has ended the wait
        }
        _logger.Error("Cannot receive a datagram: %s", e.what());
        if (!socket.PauseAfterFailure()) {
            throw;
        }
        return false;
    }
}

void UdpServer::Impl::Deliver(IUdpBufferAccept& callback, unsigned int length, const UdpSocket::Info& info,
                              Failures failures) {
    try {
        callback.AcceptBuffer(_buffer.data(), length, info);
    } catch (const abi::__forced_unwind&) {
        throw;  // pthread_exit ends the thread
    } catch (...) {
        if (failures == Failures::kThrow) {
            throw;
        }
        _logger.Error("Caught exception handling datagram: %s", DescribeCaught());
    }
}

void UdpServer::Impl::Loop(Failures callbackFailures) {
    const MutexAutoLock loop(&_loopMutex);
    std::shared_ptr<UdpSocket> socket;
    IUdpBufferAccept* callback = nullptr;
    {
        const MutexAutoLock lock(&_mutex);
        socket = _socket;
        callback = _callback;
    }
    while (_running) {
        UdpSocket::Info info{};
        unsigned int length = 0;
        if (Receive(*socket, info, length) && _running) {
            Deliver(*callback, length, info, callbackFailures);
        }
    }
}

bool UdpServer::Impl::IsStarted() const {
    const MutexAutoLock lock(&_mutex);
    return _socket != nullptr && _callback != nullptr;
}

UdpServer::Impl::Stopped UdpServer::Impl::Stop() {
    Thread* thread = nullptr;
    {
        const MutexAutoLock lock(&_mutex);
        if (_thread == nullptr) {
            return Stopped::kHadNoThread;
        }
        if (_running.exchange(false)) {
            _socket->CancelRecv();
        }
        if (Thread::CurrentThread::ThreadPtr() == _thread.get()) {
            return Stopped::kIsAsked;
        }
        thread = _thread.get();
    }
    thread->Join();
    const MutexAutoLock lock(&_mutex);
    _thread.reset();
    _socket.reset();
    return Stopped::kHasEnded;
}

void UdpServer::Impl::AddMembership(const std::string& group) {
    const MutexAutoLock lock(&_mutex);
    const auto [entry, isNew] = _groups.insert(group);
    if (!isNew || _socket == nullptr) {
        return;
    }
    try {
        _socket->AddMembership(group.c_str());
    } catch (...) {
        _groups.erase(entry);
        throw;
    }
}

void UdpServer::Impl::DropMembership(const std::string& group) {
    const MutexAutoLock lock(&_mutex);
    _groups.erase(group);
    if (_socket != nullptr) {
        _socket->DropMembership(group.c_str());
    }
}

unsigned short UdpServer::Impl::GetLocalPort() const {
    const MutexAutoLock lock(&_mutex);
    return _socket != nullptr ? _socket->GetLocalPort() : _port;
}

UdpServer::UdpServer(const std::string& address, unsigned short port, unsigned int bufferSize,
                     unsigned int options)
    : _impl(std::make_unique<Impl>(address, port, bufferSize, options)) {}

UdpServer::~UdpServer() {
    try {
        _impl->Stop();
    } catch (...) {
        // Nothing more can be done for the thread.
    }
}

void UdpServer::Run() {
    if (!_impl->IsStarted()) {
        throw Exception("UdpServer::Run(): Server has not been started");
    }
    try {
        _impl->Loop(Impl::Failures::kLogAndContinue);
        return;
    } catch (const abi::__forced_unwind&) {
        _impl->SetEnded();
        throw;
    } catch (...) {
        _impl->GetLogger().Error("The socket is lost, no datagrams are received any more: %s",
                                 DescribeCaught());
    }
    _impl->SetEnded();
}

void UdpServer::Stop() {
    if (_impl->Stop() == Impl::Stopped::kHadNoThread) {
        throw Exception("UdpServer::Stop server has not been started");
    }
}

void UdpServer::Start(IUdpBufferAccept* callback, unsigned int stackSize, signed char priority) {
    if (callback == nullptr) {
        throw Exception("UdpServer::Start(): pCallback was NULL");
    }
    _impl->Start(callback, {"UdpSocketThread", this, stackSize, priority});
}

void UdpServer::Start(IUdpBufferAccept* callback) {
    Start(callback, kStackSize, 0);
}

bool UdpServer::IsRunning() const {
    return _impl->IsRunning();
}

void UdpServer::AddMembership(const std::string& group) {
    _impl->AddMembership(group);
}

void UdpServer::DropMembership(const std::string& group) {
    _impl->DropMembership(group);
}

unsigned short UdpServer::GetLocalPort() const {
    return _impl->GetLocalPort();
}

}  // namespace zarip::osa
