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
constexpr unsigned int kNoLimit = 0xFFFFFFFFU;
constexpr MonotonicMs kSilenceMs = 5'000;
constexpr MonotonicMs kDrainSilenceMs = 1'000;
constexpr MonotonicMs kStopMs = 1'000;
constexpr MonotonicMs kShortageMs = 100;
constexpr std::size_t kMaxHeldBytes = std::size_t{8} * 1024 * 1024;

/// Whether a socket is bound to one address, and not to all of the machine.
bool IsBoundToOne(const _ipaddr_t& local) {
    return std::string_view(local.ipv4) != "0.0.0.0" && std::string_view(local.ipv6) != "::";
}

}  // namespace

HttpLoop::HttpLoop(const char* address, unsigned short port) : _listener(address, port) {
    _service.logger = core::Logger::GetLogger("HttpServer");
    _service.family = _listener.GetSocket().GetFamily();
    _service.local = LocalAddressOf(_listener.GetSocket().getHandle());
    _service.isLocalCertain = _listener.IsUnix() || IsBoundToOne(_service.local);
    SetTimeLimit(kHeadSeconds);
}

void HttpLoop::SetTimeLimit(unsigned int seconds) {
    _headMs = seconds == kNoLimit ? osa::kNever : static_cast<MonotonicMs>(seconds) * 1000;
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
    Wake();
}

void HttpLoop::Wake() noexcept {
    ::eventfd_write(_wakeUp.Get(), 1);
}

void HttpLoop::Lead() {
    for (;;) {
        try {
            if (_stop && !_isStopping) {
                BeginStop();
            }
            if (_isStopping && IsDone()) {
                _threads.End();
                return;
            }
            if (!Turn()) {
                return;
            }
        } catch (...) {
            _service.LogCaught();  // memory is short: a connection is lost, not the server
        }
    }
}

/// Waits for events and deals with them. All functions that return bool return false when the lead was lost.
bool HttpLoop::Turn() {
    _held.Wait();
    osa::HeldConnection* held = nullptr;
    for (auto ready = _held.Next(held); ready != HeldConnections::Ready::kNothing; ready = _held.Next(held)) {
        bool leads = true;
        if (ready == HeldConnections::Ready::kListener) {
            leads = Accept();
        } else if (ready == HeldConnections::Ready::kConnection) {
            leads = Look(static_cast<ServedConnection&>(*held));
        } else {
            TakeGivenBack();
        }
        if (!leads) {
            return false;
        }
    }
    while (_held.GetCount() > 0 && (held = _held.GetExpired(NowMs())) != nullptr) {
        Expire(static_cast<ServedConnection&>(*held));
    }
    return true;
}

/// Accepts one connection. To ask for the next one only to learn that nobody waits would cost more than to
/// wait for it together with all others.
bool HttpLoop::Accept() {
    if (_isStopping) {
        return true;
    }
    Listener::Accepted accepted;
    switch (_listener.Accept(accepted)) {
        case Listener::Result::kAccepted:
            return Welcome(accepted);
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

bool HttpLoop::Welcome(Listener::Accepted& accepted) {
    _service.logger->Trace("Accepted socket connection");
    auto connection = std::make_unique<ServedConnection>();
    connection->fd = std::move(accepted.fd);
    connection->port = accepted.port;
    connection->peer = accepted.peer;
    connection->end = _headMs == osa::kNever ? osa::kNever : NowMs() + _headMs;
    ServedConnection& served = *connection;
    return Read(served, connection);
}

bool HttpLoop::Look(ServedConnection& held) {
    try {
        Connection fresh;
        switch (held.state) {
            case State::kReading:
                return Read(held, fresh);
            case State::kWriting:
                HttpExchange::Write(_service, held);
                break;
            case State::kDraining:
                Drain(held);
                break;
        }
        KeepOn(held);
    } catch (...) {
        _service.LogCaught();
        _held.Drop(&held);  // a part of what was read may be missing
    }
    return true;
}

/// Reads what has come for a connection, once, and does what can be done with it. `fresh` is the connection
/// if it is not held yet, otherwise null.
bool HttpLoop::Read(ServedConnection& connection, Connection& fresh) {
    char piece[kPiece];
    const ssize_t count = ::recv(connection.fd.Get(), piece, sizeof(piece), MSG_DONTWAIT);
    if (count < 0) {
        if (errno == EAGAIN || errno == EINTR) {
            Await(connection, fresh, {}, false);
        } else if (fresh == nullptr) {
            Release(connection);  // the client has reset it
        }
        return true;
    }
    std::string_view text(piece, static_cast<std::size_t>(count));
    connection.hasEnded = count == 0;
    const bool isFirst = connection.bytes.empty();
    if (isFirst && HasControlled(connection, text)) {
        if (fresh == nullptr) {
            Release(connection);
        }
        return true;
    }
    _service.capture->Dump(connection.port, 0, text.data(), text.size());
    if (!isFirst) {
        connection.bytes.append(text);
        text = connection.bytes;
    }
    return Advance(connection, fresh, text);
}

bool HttpLoop::Advance(ServedConnection& connection, Connection& fresh, std::string_view text) {
    HttpExchange exchange(_service, connection);
    if (!exchange.IsReady(text)) {
        exchange.Continue(text);
        Await(connection, fresh, text, true);
        return true;
    }
    Connection ready = fresh != nullptr ? std::move(fresh) : Release(connection);
    if (exchange.IsRefused()) {
        exchange.Refuse();
        Keep(std::move(ready));
        return true;
    }
    return Serve(std::move(ready), exchange, text);
}

bool HttpLoop::Serve(Connection connection, HttpExchange& exchange, std::string_view text) {
    for (;;) {
        switch (_threads.Execute([&] { exchange.Serve(text); })) {
            case HttpThreads::Outcome::kLeads:
                Keep(std::move(connection));
                return true;
            case HttpThreads::Outcome::kLostLead:
                GiveBack(std::move(connection));
                return false;
            case HttpThreads::Outcome::kBusy:
                break;
        }
        if (connection->bytes.empty()) {
            connection->bytes = text;
            text = connection->bytes;
        }
        if (_threads.Queue(connection)) {
            KeepWithinLimits();
            return true;
        }
    }
}

void HttpLoop::Work(Connection connection) noexcept {
    {
        HttpExchange exchange(_service, *connection);
        exchange.Serve(connection->bytes);
    }
    GiveBack(std::move(connection));
}

/// Waits for more of a request. `text` is all that has come.
void HttpLoop::Await(ServedConnection& connection, Connection& fresh, std::string_view text, bool hasRead) {
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

/// A unix-domain server's capture is controlled by connections that begin with a command.
bool HttpLoop::HasControlled(ServedConnection& connection, std::string_view text) {
    using Command = osa::CaptureControl::Command;
    const Command command = _listener.IsUnix() ? osa::CaptureControl::Find(text) : Command::kNone;
    if (command != Command::kStart && command != Command::kStop) {
        return false;
    }
    osa::CaptureControl::Execute(command, connection.fd.Get(), _listener.GetSocket().GetLocalAddress(),
                                 *_service.capture, *_service.logger);
    return true;
}

void HttpLoop::Drain(ServedConnection& connection) {
    char dropped[kPiece];
    const ssize_t count = ::recv(connection.fd.Get(), dropped, sizeof(dropped), MSG_DONTWAIT);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) {
        connection.fd = osa::UniqueFd();
    }
}

/// Until when a connection whose request has been served may take to get on.
MonotonicMs HttpLoop::EndOfWait(ServedConnection& connection) const {
    const MonotonicMs now = NowMs();
    if (connection.state == State::kWriting) {
        if (_isStopping) {
            connection.end = std::min(connection.end, now + kStopMs);  // however it gets on
            return connection.end;
        }
        HasTakenMore(connection);
        return now + _silenceMs;
    }
    return std::min(connection.end, now + kDrainSilenceMs);
}

/// Whether the client has taken a part of the answer since the last look. The kernel reports that there is
/// room for more only when a good part of its buffer is free, which takes a slow client long.
bool HttpLoop::HasTakenMore(ServedConnection& connection) const {
    int left = 0;
    ::ioctl(connection.fd.Get(), SIOCOUTQ, &left);
    const bool hasTaken = left < connection.unacknowledged;
    connection.unacknowledged = left;
    return hasTaken;
}

/// Holds a connection whose request has been served, if there is anything left to do for it.
void HttpLoop::Keep(Connection connection) {
    if (IsLeft(*connection)) {
        const bool isWriting = connection->state == State::kWriting;
        const MonotonicMs until = EndOfWait(*connection);
        _held.Hold(std::move(connection), isWriting ? EPOLLOUT : EPOLLIN, until);
        KeepWithinLimits();
    }
}

/// The same for one that is held, after it has got on.
void HttpLoop::KeepOn(ServedConnection& connection) {
    if (IsLeft(connection)) {
        const bool isWriting = connection.state == State::kWriting;
        _held.Rearm(connection, isWriting ? EPOLLOUT : EPOLLIN, EndOfWait(connection));
    } else {
        _held.Release(connection);
    }
}

/// Whether there is anything left to do: while the server stops only answers are.
bool HttpLoop::IsLeft(const ServedConnection& connection) const {
    return connection.fd.IsValid() && (connection.state == State::kWriting || !_isStopping);
}

void HttpLoop::Expire(ServedConnection& connection) {
    if (connection.state == State::kReading) {
        Connection owned = Release(connection);
        HttpExchange(_service, *owned).Refuse();
        Keep(std::move(owned));
        return;
    }
    if (connection.state == State::kWriting && !_isStopping) {
        if (HasTakenMore(connection)) {
            KeepOn(connection);
            return;
        }
        _service.LogFailure("Timeout");
    }
    Release(connection);
}

HttpLoop::Connection HttpLoop::Release(ServedConnection& connection) {
    return Connection(static_cast<ServedConnection*>(_held.Release(connection).release()));
}

/// Closes connections while there are too many or they hold too many bytes: first those whose time ends
/// first, or the largest.
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

void HttpLoop::GiveBack(Connection connection) noexcept {
    if (!connection->fd.IsValid()) {
        return;
    }
    try {
        {
            const osa::MutexAutoLock lock(&_mutex);
            _givenBack.push_back(std::move(connection));
        }
        Wake();
    } catch (...) {
        _service.LogCaught();
    }
}

void HttpLoop::OnWorked() noexcept {
    if (_stop) {
        Wake();  // the leader may have waited for this handler
    }
}

void HttpLoop::TakeGivenBack() {
    eventfd_t count = 0;
    ::eventfd_read(_wakeUp.Get(), &count);
    std::vector<Connection> givenBack;
    {
        const osa::MutexAutoLock lock(&_mutex);
        givenBack.swap(_givenBack);
    }
    for (Connection& connection : givenBack) {
        Keep(std::move(connection));
    }
}

void HttpLoop::BeginStop() {
    _isStopping = true;
    _held.ForgetListener();
    _listener.Close();
    _threads.DropQueued();
    _held.ForEach([this](osa::HeldConnection& held) { KeepOn(static_cast<ServedConnection&>(held)); });
}

bool HttpLoop::IsDone() {
    if (_threads.GetRunning() > 0) {
        return false;
    }
    const osa::MutexAutoLock lock(&_mutex);
    return _givenBack.empty() && _held.GetCount() == 0;
}

}  // namespace zarip::inet
