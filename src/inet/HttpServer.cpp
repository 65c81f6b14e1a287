#include "zarip/inet/HttpServer.h"

#include <cstring>
#include <iostream>

#include "zarip/core/Logger.h"
#include "zarip/inet/HttpDispatcher.h"
#include "zarip/osa/ITcpSocketAccept.h"
#include "zarip/osa/TcpServer.h"
#include "zarip/osa/TcpSocket.h"
#include "zarip/osa/TcpSocketStreamBuf.h"

namespace zarip::inet {

namespace {

constexpr unsigned short kBacklog = 10;
constexpr unsigned int kReadTimeoutSeconds = 5;
constexpr unsigned int kTimeLimitSeconds = 30;
/// Most requests come, and most answers go, in one piece of this size.
constexpr unsigned int kBufferSize = 8192;

/// Whether an empty line has come, which ends the header.
bool HasHeader(const char* bytes, std::size_t length) {
    const char* const end = bytes + length;
    while (const void* const found = std::memchr(bytes, '\n', static_cast<std::size_t>(end - bytes))) {
        bytes = static_cast<const char*>(found) + 1;
        const char* const next = bytes < end && *bytes == '\r' ? bytes + 1 : bytes;
        if (next < end && *next == '\n') {
            return true;
        }
    }
    return false;
}

}  // namespace

class ZARIP_HIDDEN HttpServer::HttpServerImpl final : public osa::ITcpSocketAccept {
public:
    HttpServerImpl(const std::string& address, int port)
        : _logger(core::Logger::GetLogger("HttpServer")),
          _server(address.c_str(), static_cast<unsigned short>(static_cast<unsigned int>(port) % 65'536U)) {
        SetTimeLimit(kTimeLimitSeconds);
    }

    void SetTimeLimit(unsigned int seconds) {
        constexpr unsigned int kNoLimit = 0xFFFFFFFFU;
        _server.HoldConnections(&HasHeader, seconds < kNoLimit / 1000 ? seconds * 1000 : kNoLimit);
    }

    void AcceptSocket(osa::TcpSocket* accepted) override {
        const std::unique_ptr<osa::TcpSocket> socket(accepted);
        _logger->Trace("Accepted socket connection");
        try {
            Serve(*socket);
            socket->Finish();
        } catch (const std::exception& e) {
            _logger->Error("Error in AcceptSocket:  %s", e.what());
        } catch (...) {
            _logger->Error("Error in AcceptSocket:  %s", "unknown");
        }
    }

    void Serve(osa::TcpSocket& socket) {
        struct Connection {
            Connection(osa::TcpSocketStreamBuf& opened, osa::TcpSocket& socket) : buffer(opened) {
                buffer.Open(&socket);
            }
            Connection(const Connection&) = delete;
            Connection& operator=(const Connection&) = delete;
            ~Connection() { buffer.Close(); }
            osa::TcpSocketStreamBuf& buffer;
        };
        const Connection connection(_buffer, socket);
        _stream.clear();
        _dispatcher.HandleRequest(_stream, _stream);
        _stream.flush();
    }

    core::Logger* _logger;
    osa::TcpServer _server;
    HttpDispatcher _dispatcher;
    // One stream for all connections, which come one after the other: making one costs a fifth of a request.
    osa::TcpSocketStreamBuf _buffer{nullptr, kReadTimeoutSeconds, kBufferSize};
    std::iostream _stream{&_buffer};
};

HttpServer::HttpServer(const std::string& address, int port)
    : _impl(std::make_unique<HttpServerImpl>(address, port)) {}

HttpServer::~HttpServer() {
    try {
        StopServerThread();
    } catch (...) {
        // Nothing more can be done for the thread.
    }
}

void HttpServer::AddHandler(const std::string& pattern, IHttpHandler* handler) {
    _impl->_dispatcher.AddHandler(pattern, handler);
}

void HttpServer::RemoveHandler(IHttpHandler* handler) {
    _impl->_dispatcher.RemoveHandler(handler);
}

void HttpServer::SetTimeLimit(unsigned int seconds) {
    _impl->SetTimeLimit(seconds);
}

void HttpServer::StartServerThread() {
    _impl->_server.Start(_impl.get(), kBacklog);
}

void HttpServer::StopServerThread() {
    _impl->_server.Stop();
}

unsigned short HttpServer::GetLocalPort() const {
    return _impl->_server.GetLocalPort();
}

}  // namespace zarip::inet
