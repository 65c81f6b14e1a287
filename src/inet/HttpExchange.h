// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "inet/MessageReader.h"
#include "inet/ServedConnection.h"
#include "osa/LogLimit.h"
#include "osa/PacketCapture.h"
#include "zarip/inet/HttpDispatcher.h"
#include "zarip/inet/HttpRequest.h"
#include "zarip/inet/HttpResponse.h"
#include "zarip/inet/IHttpConnection.h"
#include "zarip/osa/Mutex.h"

namespace zarip::core {
class Logger;
}

namespace zarip::inet {

/// What all connections of an `HttpServer` share; does not change while it runs.
struct HttpService {
    HttpDispatcher dispatcher;
    core::Logger* logger = nullptr;  // not owned
    bool isStandard = false;
    unsigned short family = 0;
    /// Where the server listens; the address of each connection if that is not a certain one.
    _ipaddr_t local{};
    bool isLocalCertain = false;
    std::shared_ptr<osa::PacketCapture> capture = std::make_shared<osa::PacketCapture>();

    /// Within a handler of exceptions: logs what has ended a connection, but not every time.
    void LogCaught() noexcept;
    /// The same for a failure without an exception.
    void LogFailure(const std::string& text);

private:
    osa::Mutex _mutex{"HttpService"};
    osa::LogLimit _limit ZARIP_GUARDED_BY(_mutex);
};

/// The address at this end of a connection, or of a listening socket.
_ipaddr_t LocalAddressOf(int fd);

/// One request and its answer, made on the stack of the thread that serves it. *One thread at a time.*
class HttpExchange final : private IHttpConnection {
public:
    HttpExchange(HttpService& service, ServedConnection& connection)
        : _service(service), _connection(connection) {}

    /// Whether the request can be served with what has come, `text`; otherwise more of it is awaited.
    bool IsReady(std::string_view text);

    /// Whether it is ready because it will be answered 400, without a handler.
    bool IsRefused() const { return _isRefused; }

    /// After a look that was not ready: sends "100 Continue" if the client waits for that.
    void Continue(std::string_view text);

    /// Serves the request: reads it, has the handler answer it, and sends the answer. On return the
    /// connection is done with and closed, or it waits in `kWriting` or `kDraining`. Throws nothing.
    /// @param text  all that has come; may be the connection's own bytes.
    void Serve(std::string_view text) noexcept;

    /// Answers 400 to a request that is refused, or whose time has run out. Leaves the connection as `Serve`
    /// does.
    void Refuse() noexcept;

    /// Continues an answer of which a part has left; throws SocketException "send failed: ...".
    static void Write(HttpService& service, ServedConnection& connection);

private:
    std::unique_ptr<osa::TcpSocket> Take() override;
    unsigned long long GetContentLength() const override { return _length; }

    bool ReadHead(std::string_view text);
    void Answer(std::string_view text);
    void AnswerWhole();
    bool CanBeRequest(std::string_view firstLine) const;
    bool ExpectsContinue() const;
    std::string MakeHead();
    void AddStandardHeaders();
    void Send();

    HttpService& _service;
    ServedConnection& _connection;
    std::optional<MemoryReader> _reader;
    HttpRequest _request;
    HttpResponse _response;
    unsigned long long _length = 0;
    bool _hasHead = false;
    bool _isRefused = false;
    bool _isTaken = false;
    std::string_view _rest;
};

}  // namespace zarip::inet
