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

/// The data that all connections of an `HttpServer` share. The fields do not change while the server runs.
struct HttpService {
    HttpDispatcher dispatcher;
    core::Logger* logger = nullptr;  // not owned
    bool isStandard = false;
    unsigned short family = 0;
    /// The address on which the server listens. If `isLocalCertain` is false, each connection has to be asked
    /// for its own.
    _ipaddr_t local{};
    bool isLocalCertain = false;
    std::shared_ptr<osa::PacketCapture> capture = std::make_shared<osa::PacketCapture>();

    /// Logs the exception that has ended a connection; to be called in a catch block. The rate of records is
    /// limited.
    void LogCaught() noexcept;
    /// Logs a failure without an exception in the same way.
    void LogFailure(const std::string& text);

private:
    osa::Mutex _mutex{"HttpService"};
    osa::LogLimit _limit ZARIP_GUARDED_BY(_mutex);
};

/// Finds the address at this end of a connection, or the address of a listening socket.
_ipaddr_t FindLocalAddress(int fd);

/// One request and its answer. The object lives on the stack of the thread that serves the request. *One
/// thread at a time.*
///
/// The loop first calls `IsReady` with all bytes that have arrived. If it returns false, `SendContinue` may
/// follow, and a new object is made when more bytes have arrived. If it returns true, `ServeRequest` or, if
/// `IsRefused`, `RefuseRequest` is called once. For a queued request a new object only calls `ServeRequest`,
/// and for a request that has timed out only `RefuseRequest`.
class HttpExchange final : private IHttpConnection {
public:
    HttpExchange(HttpService& service, ServedConnection& connection)
        : _service(service), _connection(connection) {}

    /// Returns whether the bytes that have arrived, `text`, suffice to serve the request.
    bool IsReady(std::string_view text);

    /// Returns whether the request is ready because it will be answered 400 without a handler.
    bool IsRefused() const { return _isRefused; }

    /// Sends "100 Continue" if the client waits for it; to be called when `IsReady` has returned false.
    void SendContinue(std::string_view text);

    /// Reads the request, calls its handler, and sends the answer. On return the connection is either closed
    /// or in the state `kWriting` or `kDraining`. Throws nothing.
    /// @param text  all bytes that have arrived; may refer to the connection's own buffer.
    void ServeRequest(std::string_view text) noexcept;

    /// Answers 400 to a request that is refused or has timed out. Leaves the connection as `ServeRequest`
    /// does.
    void RefuseRequest() noexcept;

    /// Continues to send an answer. Throws SocketException "send failed: ...".
    static void WriteAnswer(HttpService& service, ServedConnection& connection);

private:
    std::unique_ptr<osa::TcpSocket> Take() override;
    unsigned long long GetContentLength() const override { return _length; }

    bool ReadHead(std::string_view text);
    void MakeAnswer(std::string_view text);
    void HandleWhole();
    bool CanBeRequest(std::string_view firstLine) const;
    bool ExpectsContinue() const;
    std::string MakeHead();
    void AddStandardHeaders();
    void SendAnswer();

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
