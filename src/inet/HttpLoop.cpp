// SPDX-License-Identifier: MIT

#include "inet/HttpLoop.h"

#include <linux/sockios.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "osa/CaptureControl.h"
#include "zarip/core/Logger.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::inet {

using osa::HeldConnections;
using osa::Listener;
using osa::MonotonicMs;
using osa::NowMs;
using State = ServedConnection::State;

namespace {

constexpr unsigned short kBacklog = 10;
/// Most requests come in one piece of this size.
constexpr std::size_t kPiece = 16'384;
constexpr unsigned int kHeadSeconds = 30;
constexpr MonotonicMs kSilenceMs = 5'000;
constexpr MonotonicMs kDrainSilenceMs = 1'000;
constexpr MonotonicMs kStopMs = 1'000;
constexpr MonotonicMs kShortageMs = 100;
constexpr std::size_t kMaxHeldBytes = std::size_t{8} * 1024 * 1024;

/// Returns whether a socket is bound to one address and not to all addresses of the machine.
bool IsBoundToOne(const _ipaddr_t& local) {
    return std::string_view(local.ipv4) != "0.0.0.0" && std::string_view(local.ipv6) != "::";
}

}  // namespace

HttpLoop::HttpLoop(const char* address, unsigned short port) : _listener(address, port) {
    _service.logger = core::Logger::GetLogger("HttpServer");
    _service.family = _listener.GetSocket().GetFamily();
    _service.local = FindLocalAddress(_listener.GetSocket().getHandle());
    _service.isLocalCertain = _listener.IsUnix() || IsBoundToOne(_service.local);
    SetTimeLimit(kHeadSeconds);
}

void HttpLoop::SetTimeLimit(unsigned int seconds) {
    _headMs = seconds == osa::kWaitForEver ? osa::kNever : static_cast<MonotonicMs>(seconds) * 1000;
    _silenceMs = std::min(kSilenceMs, _headMs);
}

void HttpLoop::Listen() {
    core::Logger::GetLogger("TcpServer")->Information("Starting TcpServer::Run");
    _listener.Listen(kBacklog, true);
    _wakeUp = osa::UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    _held.Open(_listener.GetSocket().getHandle(), _wakeUp.Get());
}

void HttpLoop::Stop() {
    _stop = true;
    WakeLeader();
}

void HttpLoop::WakeLeader() noexcept {
    ::eventfd_write(_wakeUp.Get(), 1);
}

void HttpLoop::RunLoop() {
    for (;;) {
        try {
            if (_stop && !_isStopping) {
                BeginStop();
            }
            if (_isStopping && IsDone()) {
                _threads.EndThreads();
                return;
            }
            if (!ProcessEvents()) {
                return;
            }
        } catch (...) {
            _service.LogCaught();  // out of memory: a connection is lost, but the server continues
        }
    }
}

/// Waits for events and processes them. This and the other private functions that return bool return false if
/// this thread has lost the lead, unless their comment says otherwise.
bool HttpLoop::ProcessEvents() {
    _held.Wait();
    osa::HeldConnection* held = nullptr;
    for (auto ready = _held.Next(held); ready != HeldConnections::Ready::kNothing; ready = _held.Next(held)) {
        bool leads = true;
        if (ready == HeldConnections::Ready::kListener) {
            leads = AcceptConnection();
        } else if (ready == HeldConnections::Ready::kConnection) {
            leads = ContinueConnection(static_cast<ServedConnection&>(*held));
        } else {
            KeepGivenBack();
        }
        if (!leads) {
            return false;
        }
    }
    while (_held.GetCount() > 0 && (held = _held.GetExpired(NowMs())) != nullptr) {
        ExpireConnection(static_cast<ServedConnection&>(*held));
    }
    return true;
}

/// Accepts one connection. A second accept would usually find nothing, which costs more than waiting for all
/// events together.
bool HttpLoop::AcceptConnection() {
    if (_isStopping) {
        return true;
    }
    Listener::Accepted accepted;
    switch (_listener.Accept(accepted)) {
        case Listener::Result::kAccepted:
            return AddConnection(accepted);
        case Listener::Result::kShort:
            MakeRoom();
            break;
        case Listener::Result::kFatal:
            Stop();
            break;
        case Listener::Result::kNone:
            break;
    }
    return true;
}

void HttpLoop::MakeRoom() {
    if (osa::HeldConnection* const first = _held.GetFirst()) {
        _held.Release(*first);
    } else if (!_listener.Refuse()) {
        osa::WaitFor(-1, 0, nullptr, NowMs() + kShortageMs);
    }
}

bool HttpLoop::AddConnection(Listener::Accepted& accepted) {
    _service.logger->Trace("Accepted socket connection");
    auto connection = std::make_unique<ServedConnection>();
    connection->fd = std::move(accepted.fd);
    connection->port = accepted.port;
    connection->peer = accepted.peer;
    connection->end = _headMs == osa::kNever ? osa::kNever : NowMs() + _headMs;
    ServedConnection& served = *connection;
    return ReadRequest(served, connection);
}

bool HttpLoop::ContinueConnection(ServedConnection& held) {
    try {
        Connection fresh;
        switch (held.state) {
            case State::kReading:
                return ReadRequest(held, fresh);
            case State::kWriting:
                HttpExchange::WriteAnswer(_service, held);
                break;
            case State::kDraining:
                DrainConnection(held);
                break;
        }
        RearmConnection(held);
    } catch (...) {
        _service.LogCaught();
        _held.Drop(&held);  // a part of the request may be lost
    }
    return true;
}

/// Reads the bytes that have arrived for a connection, once, and processes them. `fresh` owns the connection
/// if it is not held yet; otherwise it is null.
bool HttpLoop::ReadRequest(ServedConnection& connection, Connection& fresh) {
    char piece[kPiece];
    const ssize_t count = ::recv(connection.fd.Get(), piece, sizeof(piece), MSG_DONTWAIT);
    if (count < 0) {
        if (errno == EAGAIN || errno == EINTR) {
            AwaitRequest(connection, fresh, {}, false);
        } else if (fresh == nullptr) {
            ReleaseConnection(connection);  // the client has reset the connection
        }
        return true;
    }
    std::string_view text(piece, static_cast<std::size_t>(count));
    connection.hasEnded = count == 0;
    const bool isFirst = connection.bytes.empty();
    if (isFirst && ExecuteCommand(connection, text)) {
        if (fresh == nullptr) {
            ReleaseConnection(connection);
        }
        return true;
    }
    _service.capture->Dump(connection.port, 0, text.data(), text.size());
    if (!isFirst) {
        connection.bytes.append(text);
        text = connection.bytes;
    }
    return AdvanceRequest(connection, fresh, text);
}

bool HttpLoop::AdvanceRequest(ServedConnection& connection, Connection& fresh, std::string_view text) {
    HttpExchange exchange(_service, connection);
    if (!exchange.IsReady(text)) {
        exchange.SendContinue(text);
        AwaitRequest(connection, fresh, text, true);
        return true;
    }
    Connection ready = fresh != nullptr ? std::move(fresh) : ReleaseConnection(connection);
    if (exchange.IsRefused()) {
        exchange.RefuseRequest();
        KeepConnection(std::move(ready));
        return true;
    }
    return ServeRequest(std::move(ready), exchange, text);
}

bool HttpLoop::ServeRequest(Connection connection, HttpExchange& exchange, std::string_view text) {
    for (;;) {
        switch (_threads.ExecuteHandler([&] { exchange.ServeRequest(text); })) {
            case HttpThreads::Outcome::kLeads:
                KeepConnection(std::move(connection));
                return true;
            case HttpThreads::Outcome::kLostLead:
                GiveBackConnection(std::move(connection));
                return false;
            case HttpThreads::Outcome::kBusy:
                break;
        }
        if (connection->bytes.empty()) {
            connection->bytes = text;
            text = connection->bytes;
        }
        if (_threads.QueueConnection(connection)) {
            KeepWithinLimits();
            return true;
        }
    }
}

void HttpLoop::ServeQueued(Connection connection) noexcept {
    {
        HttpExchange exchange(_service, *connection);
        exchange.ServeRequest(connection->bytes);
    }
    GiveBackConnection(std::move(connection));
}

/// Waits for more bytes of a request. `text` is all that has arrived.
void HttpLoop::AwaitRequest(ServedConnection& connection, Connection& fresh, std::string_view text,
                            bool hasRead) {
    if (connection.bytes.empty()) {
        connection.bytes = text;
    }
    MonotonicMs until = NowMs() + _silenceMs;
    if (!connection.progress.HasHead()) {
        until = std::min(until, connection.end);
    }
    if (fresh != nullptr) {
        _held.Hold(std::move(fresh), EPOLLIN, until);
    } else if (hasRead) {
        _held.Rearm(connection, EPOLLIN, until);
    }
    KeepWithinLimits();
}

/// Executes a capture command and returns true if the connection begins with one. Only unix-domain servers
/// accept these commands.
bool HttpLoop::ExecuteCommand(ServedConnection& connection, std::string_view text) {
    using Command = osa::CaptureControl::Command;
    const Command command = _listener.IsUnix() ? osa::CaptureControl::Find(text) : Command::kNone;
    if (command != Command::kStart && command != Command::kStop) {
        return false;
    }
    osa::CaptureControl::Execute(command, connection.fd.Get(), _listener.GetSocket().GetLocalAddress(),
                                 *_service.capture, *_service.logger);
    return true;
}

void HttpLoop::DrainConnection(ServedConnection& connection) {
    char dropped[kPiece];
    const ssize_t count = ::recv(connection.fd.Get(), dropped, sizeof(dropped), MSG_DONTWAIT);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) {
        connection.fd = osa::UniqueFd();
    }
}

/// Returns the time at which a connection whose request has been served times out unless it makes progress.
MonotonicMs HttpLoop::UpdateDeadline(ServedConnection& connection) const {
    const MonotonicMs now = NowMs();
    if (connection.state == State::kWriting) {
        if (_isStopping) {
            connection.end = std::min(connection.end, now + kStopMs);  // even if it makes progress
            return connection.end;
        }
        UpdateUnacknowledged(connection);
        return now + _silenceMs;
    }
    return std::min(connection.end, now + kDrainSilenceMs);
}

/// Asks the kernel how much of the answer is unacknowledged and returns whether that has become less. The
/// kernel reports a writable socket only when a large part of its buffer is free, which takes long with a
/// slow client.
bool HttpLoop::UpdateUnacknowledged(ServedConnection& connection) const {
    int left = 0;
    ::ioctl(connection.fd.Get(), SIOCOUTQ, &left);
    const bool hasTaken = left < connection.unacknowledged;
    connection.unacknowledged = left;
    return hasTaken;
}

/// Holds a connection whose request has been served, unless it is finished.
void HttpLoop::KeepConnection(Connection connection) {
    if (HasWorkLeft(*connection)) {
        const bool isWriting = connection->state == State::kWriting;
        const MonotonicMs until = UpdateDeadline(*connection);
        _held.Hold(std::move(connection), isWriting ? EPOLLOUT : EPOLLIN, until);
        KeepWithinLimits();
    }
}

/// Waits again for a held connection that has made progress, or releases it if it is finished.
void HttpLoop::RearmConnection(ServedConnection& connection) {
    if (HasWorkLeft(connection)) {
        const bool isWriting = connection.state == State::kWriting;
        _held.Rearm(connection, isWriting ? EPOLLOUT : EPOLLIN, UpdateDeadline(connection));
    } else {
        _held.Release(connection);
    }
}

/// Returns whether a connection still has to be served. While the server stops, only answers are completed.
bool HttpLoop::HasWorkLeft(const ServedConnection& connection) const {
    return connection.fd.IsValid() && (connection.state == State::kWriting || !_isStopping);
}

void HttpLoop::ExpireConnection(ServedConnection& connection) {
    if (connection.state == State::kReading) {
        Connection owned = ReleaseConnection(connection);
        HttpExchange(_service, *owned).RefuseRequest();
        KeepConnection(std::move(owned));
        return;
    }
    if (connection.state == State::kWriting && !_isStopping) {
        if (UpdateUnacknowledged(connection)) {
            RearmConnection(connection);
            return;
        }
        _service.LogFailure("Timeout");
    }
    ReleaseConnection(connection);
}

HttpLoop::Connection HttpLoop::ReleaseConnection(ServedConnection& connection) {
    return Connection(static_cast<ServedConnection*>(_held.Release(connection).release()));
}

/// Closes connections until the limits are met. If there are too many, those that would time out first are
/// closed; if they buffer too many bytes, the largest.
void HttpLoop::KeepWithinLimits() {
    while (_held.GetCount() > 0 && _held.GetCount() + _threads.GetQueued() > _held.GetLimit()) {
        _held.Release(*_held.GetFirst());
        _service.LogFailure("Too many connections");
    }
    while (_threads.GetQueued() > _held.GetLimit()) {
        _threads.DropLargest();
        _service.LogFailure("Too many requests wait");
    }
    while (_held.GetBytes() + _threads.GetQueuedBytes() > kMaxHeldBytes) {
        osa::HeldConnection* const largest = _held.GetLargest();
        _service.LogFailure("Too many bytes are held");
        if (_held.GetBytes() < _threads.GetQueuedBytes()) {
            _threads.DropLargest();
        } else if (largest != nullptr) {
            _held.Release(*largest);
        }
    }
}

void HttpLoop::GiveBackConnection(Connection connection) noexcept {
    if (!connection->fd.IsValid()) {
        return;
    }
    try {
        {
            const osa::MutexAutoLock lock(&_mutex);
            _givenBack.push_back(std::move(connection));
        }
        WakeLeader();
    } catch (...) {
        _service.LogCaught();
    }
}

void HttpLoop::OnServed() noexcept {
    if (_stop) {
        WakeLeader();  // the leader may be waiting for this handler
    }
}

void HttpLoop::KeepGivenBack() {
    eventfd_t count = 0;
    ::eventfd_read(_wakeUp.Get(), &count);
    std::vector<Connection> givenBack;
    {
        const osa::MutexAutoLock lock(&_mutex);
        givenBack.swap(_givenBack);
    }
    for (Connection& connection : givenBack) {
        KeepConnection(std::move(connection));
    }
}

void HttpLoop::BeginStop() {
    _isStopping = true;
    _held.ForgetListener();
    _listener.Close();
    _threads.DropQueued();
    _held.ForEach(
        [this](osa::HeldConnection& held) { RearmConnection(static_cast<ServedConnection&>(held)); });
}

bool HttpLoop::IsDone() {
    if (_threads.GetRunning() > 0) {
        return false;
    }
    const osa::MutexAutoLock lock(&_mutex);
    return _givenBack.empty() && _held.GetCount() == 0;
}

}  // namespace zarip::inet
