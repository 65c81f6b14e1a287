// SPDX-License-Identifier: MIT

#include "zarip/inet/HttpServer.h"

#include <algorithm>
#include <atomic>
#include <vector>

#include "inet/HttpLoop.h"
#include "zarip/osa/MutexAutoLock.h"
#include "zarip/osa/Runnable.h"
#include "zarip/osa/SocketException.h"
#include "zarip/osa/Thread.h"

namespace zarip::inet {

namespace {

constexpr unsigned int kStackSize = 1024 * 1024;

}  // namespace

/// The server and its threads. The threads share the ownership, so that a handler can delete the
/// `HttpServer`. `_mutex` guards the thread objects; it is never held while a handler runs or a thread is
/// joined.
class ServerThreads final : public osa::Runnable {
public:
    ServerThreads(const std::string& address, int port)
        : _loop(address.c_str(), static_cast<unsigned short>(static_cast<unsigned int>(port) % 65'536U)) {}

    void Start(std::shared_ptr<ServerThreads> self);
    void Run() override;
    void Stop() override;

    HttpLoop& GetLoop() { return _loop; }

private:
    bool IsOwnThread() const ZARIP_REQUIRES(_mutex);

    HttpLoop _loop;
    std::atomic<unsigned int> _left{0};
    std::shared_ptr<ServerThreads> _self;  // set until the last thread has ended

    osa::Mutex _mutex{"HttpServer"};
    std::vector<std::unique_ptr<osa::Thread>> _threads ZARIP_GUARDED_BY(_mutex);
    bool _running ZARIP_GUARDED_BY(_mutex) = false;
    bool _stopped ZARIP_GUARDED_BY(_mutex) = false;
};

void ServerThreads::Start(std::shared_ptr<ServerThreads> self) {
    const osa::MutexAutoLock lock(&_mutex);
    if (_stopped) {
        throw osa::SocketException("Server was stopped", osa::SocketException::SocketGeneralError);
    }
    if (_running) {
        return;
    }
    std::vector<std::unique_ptr<osa::Thread>> threads;
    while (threads.size() <= _loop.GetThreads().GetWorkers()) {
        threads.push_back(std::make_unique<osa::Thread>("TcpSocketThread", this, kStackSize, 0));
    }
    _loop.Listen();
    _threads = std::move(threads);
    _self = std::move(self);
    _left = static_cast<unsigned int>(_threads.size());
    _running = true;
    for (const auto& thread : _threads) {
        thread->Run();
    }
}

void ServerThreads::Run() {
    _loop.GetThreads().Run();
    std::shared_ptr<ServerThreads> self;
    if (--_left == 0) {
        self = std::move(_self);
    }
}

void ServerThreads::Stop() {
    std::vector<std::unique_ptr<osa::Thread>> threads;
    {
        const osa::MutexAutoLock lock(&_mutex);
        if (!_running) {
            return;
        }
        _stopped = true;
        _loop.Stop();
        if (IsOwnThread()) {
            return;  // a handler called this; the loop ends after it
        }
        _running = false;
        threads.swap(_threads);
    }
    for (const auto& thread : threads) {
        thread->Join();
    }
}

bool ServerThreads::IsOwnThread() const {
    const osa::Thread* const current = osa::Thread::CurrentThread::ThreadPtr();
    return std::any_of(_threads.begin(), _threads.end(),
                       [current](const auto& thread) { return thread.get() == current; });
}

class ZARIP_HIDDEN HttpServer::HttpServerImpl {
public:
    std::shared_ptr<ServerThreads> server;
};

HttpServer::HttpServer(const std::string& address, int port)
    : _impl(
          std::make_unique<HttpServerImpl>(HttpServerImpl{std::make_shared<ServerThreads>(address, port)})) {}

HttpServer::~HttpServer() {
    try {
        StopServerThread();
    } catch (...) {
        // A destructor cannot report that the threads could not be joined.
    }
}

void HttpServer::AddHandler(const std::string& pattern, IHttpHandler* handler) {
    _impl->server->GetLoop().GetService().dispatcher.AddHandler(pattern, handler);
}

void HttpServer::RemoveHandler(IHttpHandler* handler) {
    _impl->server->GetLoop().GetService().dispatcher.RemoveHandler(handler);
}

void HttpServer::SetTimeLimit(unsigned int seconds) {
    _impl->server->GetLoop().SetTimeLimit(seconds);
}

void HttpServer::SetWorkers(unsigned int count) {
    _impl->server->GetLoop().GetThreads().SetWorkers(std::clamp(count, 1U, HttpThreads::kMaxWorkers));
}

void HttpServer::SetStandardResponses(bool on) {
    _impl->server->GetLoop().GetService().isStandard = on;
}

void HttpServer::StartServerThread() {
    _impl->server->Start(_impl->server);
}

void HttpServer::StopServerThread() {
    _impl->server->Stop();
}

unsigned short HttpServer::GetLocalPort() const {
    return _impl->server->GetLoop().GetLocalPort();
}

}  // namespace zarip::inet
