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

/// The loop of an HTTP server over all its connections, from accept to close: reads a request until the
/// announced body is there, has it served, writes what is left of the answer, drains, closes. What a client
/// does or leaves undone delays nobody else; only handlers do, which run on at most n threads
/// (`HttpThreads`).
///
/// The thread that leads touches the listener and the held connections. Other threads serve a request and
/// give its connection back through `_givenBack`, which `_mutex` guards, and the wake-up.
///
/// Times: a client may be silent for 5 seconds, and take 30 for its head; then its request is answered 400.
/// It may take nothing of the answer for 5 seconds. After an answer to a request that was not read to its end
/// the rest is dropped for up to 30 seconds, one second of silence ends that. Bytes: what is held for all
/// connections together is limited to 8 MiB, beyond that the connection with the most is closed.
class HttpLoop final : public IHttpWork {
public:
    HttpLoop(const char* address, unsigned short port);

    HttpService& GetService() { return _service; }
    HttpThreads& GetThreads() { return _threads; }
    unsigned short GetLocalPort() const { return _listener.GetSocket().GetLocalPort(); }

    // Before `Listen`.
    void SetTimeLimit(unsigned int seconds);

    /// Throws SocketException "listen failed". Then `HttpThreads::Run` is called on each thread.
    void Listen();

    /// Asks the loop to end, on any thread: it refuses connections and cuts those that are read, lets
    /// handlers end, and gives their answers a second to leave.
    void Stop();

    void Lead() override;
    void Work(std::unique_ptr<ServedConnection> connection) noexcept override;
    void OnWorked() noexcept override;

private:
    using Connection = std::unique_ptr<ServedConnection>;

    bool Turn();
    bool Accept();
    void MakeRoom();
    bool Welcome(osa::Listener::Accepted& accepted);
    bool Look(ServedConnection& held);
    bool Read(ServedConnection& connection, Connection& fresh);
    bool Advance(ServedConnection& connection, Connection& fresh, std::string_view text);
    bool Serve(Connection connection, HttpExchange& exchange, std::string_view text);
    void Await(ServedConnection& connection, Connection& fresh, std::string_view text, bool hasRead);
    bool HasControlled(ServedConnection& connection, std::string_view text);
    void Drain(ServedConnection& connection);
    void Keep(Connection connection);
    void KeepOn(ServedConnection& connection);
    bool IsLeft(const ServedConnection& connection) const;
    osa::MonotonicMs EndOfWait(ServedConnection& connection) const;
    bool HasTakenMore(ServedConnection& connection) const;
    void Expire(ServedConnection& connection);
    Connection Release(ServedConnection& connection);
    void KeepWithinLimits();
    void GiveBack(Connection connection) noexcept;
    void TakeGivenBack();
    void BeginStop();
    bool IsDone();
    void Wake() noexcept;

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
