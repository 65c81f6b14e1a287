// SPDX-License-Identifier: MIT

#include "zarip/osa/UdpServer.h"

#include <cxxabi.h>

#include <exception>
#include <utility>

#include "osa/UdpServerImpl.h"
#include "osa/Wait.h"
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

void UdpServer::Impl::StartThread(const char* name, UdpServer* server, unsigned int stackSize,
                                  signed char priority) {
    auto thread = std::make_unique<Thread>(name, server, stackSize, priority);
    thread->Run();
    _thread = std::move(thread);
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

/// False when the loop should look again at whether it is to go on.
bool UdpServer::Impl::Receive(const UdpSocket& socket, UdpSocket::Info& info, unsigned int& length) {
    try {
        length = ReceiveNewest(socket, info);
        return true;
    } catch (const std::exception& e) {
        if (!_running) {
            return false;
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
    } catch (const std::exception& e) {
        if (failures == Failures::kThrow) {
            throw;
        }
        _logger.Error("Caught exception handling datagram: %s", e.what());
    } catch (...) {
        if (failures == Failures::kThrow) {
            throw;
        }
        _logger.Error("Caught exception handling datagram: unknown");
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
        _impl->Loop(Impl::Failures::kLogAndGoOn);
        return;
    } catch (const abi::__forced_unwind&) {
        _impl->_running = false;
        throw;
    } catch (const std::exception& e) {
        _impl->_logger.Error("The socket is lost, no datagrams are received any more: %s", e.what());
    } catch (...) {
        _impl->_logger.Error("The socket is lost, no datagrams are received any more: unknown");
    }
    _impl->_running = false;
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
    const MutexAutoLock lock(&_impl->_mutex);
    if (_impl->_thread != nullptr) {
        return;
    }
    _impl->Open();
    _impl->_callback = callback;
    _impl->_running = true;
    try {
        _impl->StartThread("UdpSocketThread", this, stackSize, priority);
    } catch (...) {
        _impl->_running = false;
        _impl->_socket.reset();
        throw;
    }
}

void UdpServer::Start(IUdpBufferAccept* callback) {
    Start(callback, kStackSize, 0);
}

bool UdpServer::IsRunning() const {
    return _impl->_running;
}

void UdpServer::AddMembership(const std::string& group) {
    const MutexAutoLock lock(&_impl->_mutex);
    const auto [entry, isNew] = _impl->_groups.insert(group);
    if (!isNew || _impl->_socket == nullptr) {
        return;
    }
    try {
        _impl->_socket->AddMembership(group.c_str());
    } catch (...) {
        _impl->_groups.erase(entry);
        throw;
    }
}

void UdpServer::DropMembership(const std::string& group) {
    const MutexAutoLock lock(&_impl->_mutex);
    _impl->_groups.erase(group);
    if (_impl->_socket != nullptr) {
        _impl->_socket->DropMembership(group.c_str());
    }
}

unsigned short UdpServer::GetLocalPort() const {
    const MutexAutoLock lock(&_impl->_mutex);
    return _impl->_socket != nullptr ? _impl->_socket->GetLocalPort() : _impl->_port;
}

}  // namespace zarip::osa
