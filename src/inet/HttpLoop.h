// SPDX-License-Identifier: MIT

#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "inet/HttpExchange.h"
#include "inet/HttpThreads.h"
#include "inet/ServedConnection.h"
#include "osa/HeldConnections.h"
#include "osa/Listener.h"

namespace zarip::inet {

/// The loop of an HTTP server over all its connections, from accept to close. It reads a request until the
/// announced body is complete, has it served, writes the rest of the answer, drains the connection and closes
/// it. A slow client delays no other client. Only handlers can, which run on at most n threads
/// (`HttpThreads`).
///
/// Only the leading thread uses the listener and the held connections. Other threads serve a request and
/// return its connection through `_givenBack`, which `_mutex` guards, and wake the leader.
///
/// Time limits: a request is answered 400 if the client is silent for 5 seconds or takes more than 30 seconds
/// for the head. A connection is closed if the client accepts nothing of the answer for 5 seconds. If a
/// request was answered before it was read completely, its rest is read and dropped for up to 30 seconds, or
/// until the client is silent for one second. Size limit: all connections together may buffer 8 MiB. If they
/// exceed that, the connection with the largest buffer is closed.
class HttpLoop final : public IHttpWork {
public:
    HttpLoop(const char* address, unsigned short port);

    HttpService& GetService() { return _service; }
    HttpThreads& GetThreads() { return _threads; }
    unsigned short GetLocalPort() const { return _listener.GetSocket().GetLocalPort(); }

    /// Sets the time for the head of a request; to be called before `Listen`.
    void SetTimeLimit(unsigned int seconds);

    /// Begins to listen; to be called once, before `HttpThreads::Run` is called on each thread. Throws
    /// SocketException "listen failed".
    void Listen();

    /// Requests the end of the loop, on any thread and any number of times. The loop then closes the listener
    /// and the connections whose requests are incomplete. Running handlers finish, and their answers get one
    /// second to be sent.
    void Stop();

    void RunLoop() override;
    void ServeQueued(std::unique_ptr<ServedConnection> connection) noexcept override;
    void OnServed() noexcept override;

private:
    using Connection = std::unique_ptr<ServedConnection>;

    bool ProcessEvents();
    bool AcceptConnection();
    void MakeRoom();
    bool AddConnection(osa::Listener::Accepted& accepted);
    bool ContinueConnection(ServedConnection& held);
    bool ReadRequest(ServedConnection& connection, Connection& fresh);
    bool AdvanceRequest(ServedConnection& connection, Connection& fresh, std::string_view text);
    bool ServeRequest(Connection connection, HttpExchange& exchange, std::string_view text);
    void AwaitRequest(ServedConnection& connection, Connection& fresh, std::string_view text, bool hasRead);
    bool ExecuteCommand(ServedConnection& connection, std::string_view text);
    void DrainConnection(ServedConnection& connection);
    void KeepConnection(Connection connection);
    void RearmConnection(ServedConnection& connection);
    bool HasWorkLeft(const ServedConnection& connection) const;
    osa::MonotonicMs UpdateDeadline(ServedConnection& connection) const;
    bool UpdateUnacknowledged(ServedConnection& connection) const;
    void ExpireConnection(ServedConnection& connection);
    Connection ReleaseConnection(ServedConnection& connection);
    void KeepWithinLimits();
    void GiveBackConnection(Connection connection) noexcept;
    void KeepGivenBack();
    void BeginStop();
    bool IsDone();
    void WakeLeader() noexcept;

    HttpService _service;
    HttpThreads _threads{*this};
    osa::Listener _listener;
    osa::HeldConnections _held;
    osa::UniqueFd _wakeUp;
    osa::MonotonicMs _headMs;
    osa::MonotonicMs _silenceMs;
    bool _isStopping = false;
    std::atomic<bool> _stop{false};

    osa::Mutex _mutex{"HttpLoop"};
    std::vector<Connection> _givenBack ZARIP_GUARDED_BY(_mutex);
};

}  // namespace zarip::inet
