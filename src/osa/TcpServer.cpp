// SPDX-License-Identifier: MIT

#include "zarip/osa/TcpServer.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <iterator>
#include <string>
#include <string_view>
#include <typeinfo>

#include "osa/CaptureControl.h"
#include "osa/DescribeCaught.h"
#include "osa/Errors.h"
#include "osa/HeldConnections.h"
#include "osa/Listener.h"
#include "osa/TcpSocketImpl.h"
#include "zarip/core/Logger.h"
#include "zarip/osa/ITcpSocketAccept.h"
#include "zarip/osa/MutexAutoLock.h"
#include "zarip/osa/Semaphore.h"
#include "zarip/osa/Thread.h"

namespace zarip::osa {

namespace {

/// Makes the library export the type's description, to which programs may be linked.
[[gnu::used]] const std::type_info* const kAcceptorType = &typeid(ITcpSocketAccept);

constexpr unsigned int kStackSize = 32'768;
constexpr std::size_t kMaxReadAhead = 4'095;
constexpr MonotonicMs kControlWaitMs = 2'000;
constexpr MonotonicMs kShortageWaitMs = 100;
constexpr int kMaxAcceptedAtOnce = 16;

// Every other error means that accepting will not work again.
constexpr int kRecoverable[] = {EINTR,      EAGAIN,       ENONET,      EPROTO,       ENOPROTOOPT,
                                EOPNOTSUPP, ENETDOWN,     ENETUNREACH, ECONNABORTED, ECONNRESET,
                                EHOSTDOWN,  EHOSTUNREACH, 512 /* ERESTARTSYS */};

}  // namespace

struct ZARIP_HIDDEN TcpServer::Impl {
    class Loop;
    std::shared_ptr<Loop> loop;
};

/// The accept loop. It is shared with its thread, so that the acceptor may delete the server.
///
/// It is bound, then started once, then stopped once; a stopped loop is not started again. `HoldConnections`
/// is called before `Start`, and `Stop` any number of times by any thread.
///
/// Once the loop runs, its thread alone uses the listening socket and the held connections. `_stop` is set
/// once and never cleared. `_mutex` guards the thread, which several callers of `Stop` may want to join; it
/// is never held while the acceptor runs or the thread is joined.
class ZARIP_HIDDEN TcpServer::Impl::Loop {
public:
    Loop(const char* address, unsigned short port) : _listener(address, port) {}

    void Start(TcpServer* server, ITcpSocketAccept* acceptor, unsigned short backlog, unsigned int stackSize,
               signed char priority);
    void Run();
    void Stop();
    void ReleaseThread();
    void HoldConnections(ReadyTest isReady, unsigned int limitMs);
    const TcpSocket& GetSocket() const { return _listener.GetSocket(); }
    const std::shared_ptr<PacketCapture>& GetCapture() const { return _capture; }

private:
    /// What a connection turns out to be.
    enum class State {
        kWaiting,  ///< it has not sent enough yet
        kReady,    ///< the acceptor gets it
        kExpired,  ///< its time has run out: the acceptor gets it and may still answer what has arrived
        kControl,  ///< it has controlled the capture, and is closed
        kLost,     ///< memory ran out while it was read, so a part may be missing; it is closed
    };

    void Listen();
    void RunLoop();
    void AcceptPending();
    void MakeRoom();
    void AdmitConnection(Listener::Accepted& accepted);
    void UpdateConnection(HeldConnection& held, bool isExpired);
    State Classify(HeldConnection& connection, bool isExpired);
    State ReadAhead(HeldConnection& connection);
    State PeekCommand(HeldConnection& connection);
    bool ExecuteCommand(HeldConnection& connection, CaptureControl::Command command);
    void ServeConnection(HeldConnection& connection, State state);
    void LogCaught();

    Listener _listener;
    std::shared_ptr<PacketCapture> _capture = std::make_shared<PacketCapture>();
    ReadyTest _isReady = nullptr;
    unsigned int _limitMs = kWaitForEver;
    ITcpSocketAccept* _acceptor = nullptr;
    unsigned short _backlog = 1;
    core::Logger* _logger = nullptr;
    std::atomic<bool> _running{false};
    std::atomic<bool> _stop{false};
    std::shared_ptr<CancelEvent> _stopEvent = std::make_shared<CancelEvent>();
    Semaphore _runLock{"TcpServer", 1, 1};
    Semaphore _listening{"TcpServer::listening", 1, 0};
    std::exception_ptr _startFailure;
    bool _isFatal = false;
    HeldConnections _held;

    Mutex _mutex{"TcpServer::_mutex"};
    std::unique_ptr<Thread> _thread ZARIP_GUARDED_BY(_mutex);
};

void TcpServer::Impl::Loop::Start(TcpServer* server, ITcpSocketAccept* acceptor, unsigned short backlog,
                                  unsigned int stackSize, signed char priority) {
    if (acceptor == nullptr) {
        throw SocketException("Invalid acceptor", SocketException::SocketGeneralError);
    }
    {
        const MutexAutoLock lock(&_mutex);
        if (_stop) {
            throw SocketException("Server was stopped", SocketException::SocketGeneralError);
        }
        if (_thread != nullptr) {
            return;
        }
        _acceptor = acceptor;
        _backlog = backlog;
        _thread = std::make_unique<Thread>("TcpSocketThread", server, stackSize, priority);
        _running = true;
        _thread->Run();
    }
    _listening.Lock();
    if (_startFailure) {
        Stop();
        std::rethrow_exception(_startFailure);
    }
}

void TcpServer::Impl::Loop::Run() {
    _logger = core::Logger::GetLogger("TcpServer");
    _runLock.Lock();
    bool listens = false;
    try {
        _logger->Information("Starting TcpServer::Run");
        Listen();
        listens = true;
    } catch (...) {
        _startFailure = std::current_exception();  // `Start` throws it
    }
    _listening.Release();
    if (listens) {
        RunLoop();
        // Nothing accepts connections any more, so clients are refused instead of kept waiting.
        _listener.Close();
    }
    _held.Clear();
    _runLock.Release();
}

void TcpServer::Impl::Loop::Listen() {
    _listener.Listen(_backlog, _isReady != nullptr);
    _held.Open(_listener.GetSocket().getHandle(), _stopEvent->GetFd());
}

void TcpServer::Impl::Loop::RunLoop() {
    while (!_stop && !_isFatal) {
        try {
            _held.Wait();
            HeldConnection* connection = nullptr;
            for (auto ready = _held.Next(connection); ready != HeldConnections::Ready::kNothing && !_stop;
                 ready = _held.Next(connection)) {
                if (ready == HeldConnections::Ready::kListener) {
                    AcceptPending();
                } else if (ready == HeldConnections::Ready::kConnection) {
                    UpdateConnection(*connection, false);
                }
            }
            while (!_stop && (connection = _held.GetExpired(NowMs())) != nullptr) {
                UpdateConnection(*connection, true);
            }
        } catch (...) {
            LogCaught();  // memory is short: that costs a connection, but not the server
        }
    }
}

/// Accepts the connections that wait, but only so many at once, because held connections have to be served as
/// well.
void TcpServer::Impl::Loop::AcceptPending() {
    for (int i = 0; i < kMaxAcceptedAtOnce && !_stop; ++i) {
        Listener::Accepted accepted;
        switch (_listener.Accept(accepted)) {
            case Listener::Result::kAccepted:
                AdmitConnection(accepted);
                break;
            case Listener::Result::kShort:
                MakeRoom();
                return;
            case Listener::Result::kFatal:
                _isFatal = true;
                return;
            case Listener::Result::kNone:
                return;
        }
    }
}

void TcpServer::Impl::Loop::MakeRoom() {
    if (HeldConnection* const first = _held.GetFirst()) {
        _held.Release(*first);
    } else if (!_listener.Refuse()) {
        Pause(kShortageWaitMs, _stopEvent.get());
    }
}

void TcpServer::Impl::Loop::AdmitConnection(Listener::Accepted& accepted) {
    auto connection = std::make_unique<HeldConnection>();
    connection->fd = std::move(accepted.fd);
    connection->port = accepted.port;
    const State state = Classify(*connection, false);
    if (state != State::kWaiting) {
        ServeConnection(*connection, state);
        return;
    }
    if (_held.GetCount() >= _held.GetLimit()) {
        _held.Release(*_held.GetFirst());
    }
    const MonotonicMs wait = _isReady != nullptr ? static_cast<MonotonicMs>(_limitMs) : kControlWaitMs;
    // Edge-triggered, because bytes that were only peeked at are still there and would be reported for ever.
    _held.Hold(std::move(connection), EPOLLIN | EPOLLRDHUP | EPOLLET, NowMs() + wait);
}

/// For a held connection that has sent something or whose time has run out.
void TcpServer::Impl::Loop::UpdateConnection(HeldConnection& held, bool isExpired) {
    const State state = Classify(held, isExpired);
    if (state != State::kWaiting) {
        const std::unique_ptr<HeldConnection> connection = _held.Release(held);
        ServeConnection(*connection, state);
    }
}

TcpServer::Impl::Loop::State TcpServer::Impl::Loop::Classify(HeldConnection& connection, bool isExpired) {
    try {
        const State state = _isReady != nullptr  ? ReadAhead(connection)
                            : _listener.IsUnix() ? PeekCommand(connection)
                                                 : State::kReady;
        if (state != State::kWaiting || !isExpired) {
            return state;
        }
        // Without a test the server has only waited for a command, and the connection is like any other.
        return _isReady != nullptr ? State::kExpired : State::kReady;
    } catch (...) {
        LogCaught();
        return State::kLost;
    }
}

/// Reads what has arrived, up to kMaxReadAhead bytes, for the acceptor.
TcpServer::Impl::Loop::State TcpServer::Impl::Loop::ReadAhead(HeldConnection& connection) {
    char bytes[kMaxReadAhead];
    std::string& received = connection.bytes;
    for (;;) {
        const ssize_t count =
            ::recv(connection.fd.Get(), bytes, kMaxReadAhead - received.size(), MSG_DONTWAIT);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0 && errno == EAGAIN) {
            return State::kWaiting;
        }
        if (count <= 0) {
            return State::kReady;  // the acceptor sees the end or the error itself
        }
        received.append(bytes, static_cast<std::size_t>(count));
        if (_listener.IsUnix() && ExecuteCommand(connection, CaptureControl::Find(received))) {
            return State::kControl;
        }
        if (received.size() == kMaxReadAhead || _isReady(received.data(), received.size())) {
            return State::kReady;
        }
    }
}

/// Looks for a control command and leaves the bytes for the acceptor. A peer that has sent the beginning of a
/// command is waited for.
TcpServer::Impl::Loop::State TcpServer::Impl::Loop::PeekCommand(HeldConnection& connection) {
    char bytes[CaptureControl::kMaxLength];
    const ssize_t peeked = ::recv(connection.fd.Get(), bytes, sizeof(bytes), MSG_PEEK | MSG_DONTWAIT);
    if (peeked < 0) {
        return errno == EAGAIN || errno == EINTR ? State::kWaiting : State::kReady;
    }
    const auto command = CaptureControl::Find({bytes, static_cast<std::size_t>(peeked)});
    if (ExecuteCommand(connection, command)) {
        // The command is received, because closing a connection with unread bytes would reset it.
        ::recv(connection.fd.Get(), bytes, sizeof(bytes), MSG_DONTWAIT);
        return State::kControl;
    }
    return command == CaptureControl::Command::kMaybe ? State::kWaiting : State::kReady;
}

/// False if there is no whole command.
bool TcpServer::Impl::Loop::ExecuteCommand(HeldConnection& connection, CaptureControl::Command command) {
    if (command != CaptureControl::Command::kStart && command != CaptureControl::Command::kStop) {
        return false;
    }
    CaptureControl::Execute(command, connection.fd.Get(), _listener.GetSocket().GetLocalAddress(), *_capture,
                            *_logger);
    return true;
}

/// Logs the exception that is being handled: a failed connection does not end the loop.
void TcpServer::Impl::Loop::LogCaught() {
    try {
        _logger->Error("Caught exception handling incoming socket connection: %s", DescribeCaught());
    } catch (...) {
        // There is not even memory for the record.
    }
}

/// Hands the connection to the acceptor if its state says so; otherwise its owner closes it.
void TcpServer::Impl::Loop::ServeConnection(HeldConnection& held, State state) {
    if (state != State::kReady && state != State::kExpired) {
        return;
    }
    std::shared_ptr<TcpSocket::Impl> connection;
    try {
        connection = std::make_shared<TcpSocket::Impl>();
        connection->fd = std::move(held.fd);
        connection->readAhead = std::move(held.bytes);
        connection->connected = true;
        connection->family = _listener.GetSocket().GetFamily();
        connection->port = held.port;
        connection->capture = _capture;
        if (_isReady != nullptr && _limitMs != kWaitForEver) {
            connection->limit = NowMs() + (state == State::kExpired ? 0 : static_cast<MonotonicMs>(_limitMs));
        }
        connection->serverStop = _stopEvent;
        connection->servedBy = ::pthread_self();
        connection->isServed = true;
        std::unique_ptr<TcpSocket> socket(new TcpSocket(connection));
        _acceptor->AcceptSocket(socket.release());
    } catch (...) {
        LogCaught();
    }
    if (connection != nullptr) {
        // From here on the connection belongs to the thread that the acceptor has handed it to.
        connection->isServed = false;
    }
}

void TcpServer::Impl::Loop::Stop() {
    Thread* thread = nullptr;
    {
        const MutexAutoLock lock(&_mutex);
        if (!_running) {
            return;
        }
        _stop = true;
        _stopEvent->Cancel();
        if (Thread::CurrentThread::ThreadPtr() == _thread.get()) {
            return;  // the acceptor is the caller; the loop ends when it returns
        }
        _running = false;
        thread = _thread.get();
    }
    _runLock.Lock();
    _runLock.Release();
    thread->Join();
    const MutexAutoLock lock(&_mutex);
    _thread.reset();
}

/// For an acceptor that deletes the server. The thread object goes with the server, and the thread itself
/// ends with the loop.
void TcpServer::Impl::Loop::ReleaseThread() {
    const MutexAutoLock lock(&_mutex);
    _thread.reset();
}

void TcpServer::Impl::Loop::HoldConnections(ReadyTest isReady, unsigned int limitMs) {
    _isReady = isReady;
    _limitMs = limitMs;
}

TcpServer::TcpServer(const char* address, unsigned short port)
    : _impl(std::make_unique<Impl>(Impl{std::make_shared<Impl::Loop>(address, port)})) {}

TcpServer::~TcpServer() {
    try {
        Stop();
        _impl->loop->ReleaseThread();
    } catch (...) {
        // Nothing more can be done for the thread.
    }
}

void TcpServer::Start(ITcpSocketAccept* acceptor, unsigned short backlog, unsigned int stackSize,
                      signed char priority) {
    _impl->loop->Start(this, acceptor, backlog, stackSize, priority);
}

void TcpServer::Start(ITcpSocketAccept* acceptor, unsigned short backlog) {
    Start(acceptor, backlog, kStackSize, 0);
}

void TcpServer::Run() {
    const std::shared_ptr<Impl::Loop> loop = _impl->loop;  // the acceptor may delete the server
    loop->Run();
}

void TcpServer::Stop() {
    _impl->loop->Stop();
}

void TcpServer::HoldConnections(ReadyTest isReady, unsigned int limitMs) {
    _impl->loop->HoldConnections(isReady, limitMs);
}

void TcpServer::SetBufferSize(unsigned int bytes) const {
    _impl->loop->GetSocket().SetBufferSize(bytes);
}

unsigned short TcpServer::GetLocalPort() const {
    return _impl->loop->GetSocket().GetLocalPort();
}

bool TcpServer::IsFatalError(int error) {
    return std::find(std::begin(kRecoverable), std::end(kRecoverable), error) == std::end(kRecoverable);
}

void TcpServer::DumpPacket(unsigned short sourcePort, unsigned short destinationPort, const void* data,
                           int length) {
    if (length > 0) {
        _impl->loop->GetCapture()->Dump(sourcePort, destinationPort, data, static_cast<std::size_t>(length));
    }
}

std::shared_ptr<PacketCapture> TcpServer::GetCapture() const {
    return _impl->loop->GetCapture();
}

}  // namespace zarip::osa
