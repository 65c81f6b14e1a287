// SPDX-License-Identifier: MIT

#include "zarip/osa/TcpServer.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <exception>
#include <iterator>
#include <string>
#include <string_view>
#include <typeinfo>

#include "osa/CaptureControl.h"
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

/// Has the library keep the type's description, to which programs may be linked.
[[gnu::used]] const std::type_info* const kAcceptorType = &typeid(ITcpSocketAccept);

constexpr unsigned int kStackSize = 32'768;
constexpr std::size_t kMaxReadAhead = 4'095;
constexpr MonotonicMs kControlWaitMs = 2'000;
constexpr MonotonicMs kShortageWaitMs = 100;
constexpr int kMaxAcceptedAtOnce = 16;

// Everything else means that accepting will not work again.
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
/// The loop's thread alone touches the listening socket once it runs, and the connections it holds. `_stop`
/// is set once and never cleared. `_mutex` guards the thread, for which several may call `Stop`; it is never
/// held while the acceptor runs or the thread is joined.
class ZARIP_HIDDEN TcpServer::Impl::Loop {
public:
    Loop(const char* address, unsigned short port) : _listener(address, port) {}

    void Start(TcpServer* server, ITcpSocketAccept* acceptor, unsigned short backlog, unsigned int stackSize,
               signed char priority);
    void Run();
    void Stop();
    void LetGoOfOwnThread();

    Listener _listener;
    std::shared_ptr<PacketCapture> _capture = std::make_shared<PacketCapture>();
    ReadyTest _isReady = nullptr;
    unsigned int _limitMs = kWaitForEver;

private:
    /// What a new connection turns out to be.
    enum class State {
        kWaiting,  ///< it has not said enough
        kReady,    ///< the acceptor gets it
        kOver,     ///< the acceptor gets it with its time used up
        kControl,  ///< it has controlled the capture
    };

    void Listen();
    void RunLoop();
    void AcceptWaiting();
    void MakeRoom();
    void Welcome(Listener::Accepted& accepted);
    void Look(HeldConnection& held, bool isOver);
    State Classify(HeldConnection& connection);
    State ReadAhead(HeldConnection& connection);
    State Peek(HeldConnection& connection);
    bool HasControlled(HeldConnection& connection, CaptureControl::Command command);
    void Finish(HeldConnection& connection, State state);
    void Serve(HeldConnection& connection, bool isOver);
    void LogCaught();

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
        _startFailure = std::current_exception();  // it is `Start` that reports it
    }
    _listening.Release();
    if (listens) {
        RunLoop();
        // Whatever has ended the loop: nobody will accept any more.
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
                    AcceptWaiting();
                } else if (ready == HeldConnections::Ready::kConnection) {
                    Look(*connection, false);
                }
            }
            while (!_stop && (connection = _held.GetExpired(NowMs())) != nullptr) {
                Look(*connection, true);
            }
        } catch (...) {
            LogCaught();  // memory is short: a connection is lost, not the server
        }
    }
}

/// Accepts what waits, but not for ever: held connections need a look as well.
void TcpServer::Impl::Loop::AcceptWaiting() {
    for (int i = 0; i < kMaxAcceptedAtOnce && !_stop; ++i) {
        Listener::Accepted accepted;
        switch (_listener.Accept(accepted)) {
            case Listener::Result::kAccepted:
                Welcome(accepted);
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
        WaitFor(-1, 0, _stopEvent.get(), NowMs() + kShortageWaitMs);
    }
}

void TcpServer::Impl::Loop::Welcome(Listener::Accepted& accepted) {
    auto connection = std::make_unique<HeldConnection>();
    connection->fd = std::move(accepted.fd);
    connection->port = accepted.port;
    const State state = Classify(*connection);
    if (state != State::kWaiting) {
        Finish(*connection, state);
        return;
    }
    if (_held.GetCount() >= _held.GetLimit()) {
        _held.Release(*_held.GetFirst());
    }
    const MonotonicMs wait = _isReady != nullptr ? static_cast<MonotonicMs>(_limitMs) : kControlWaitMs;
    // By edges: what was only peeked at is still there and would be reported over and over.
    _held.Hold(std::move(connection), EPOLLIN | EPOLLRDHUP | EPOLLET, NowMs() + wait);
}

/// Looks at a held connection, which may have said something or whose time is over.
void TcpServer::Impl::Loop::Look(HeldConnection& held, bool isOver) {
    try {
        State state = Classify(held);
        if (state == State::kWaiting && isOver) {
            // Without a test it was only waited for a command; it is served like any other.
            state = _isReady != nullptr ? State::kOver : State::kReady;
        }
        if (state != State::kWaiting) {
            const std::unique_ptr<HeldConnection> connection = _held.Release(held);
            Finish(*connection, state);
        }
    } catch (...) {
        LogCaught();
        _held.Drop(&held);  // a part of what it has said may be missing
    }
}

TcpServer::Impl::Loop::State TcpServer::Impl::Loop::Classify(HeldConnection& connection) {
    if (_isReady != nullptr) {
        return ReadAhead(connection);
    }
    return _listener.IsUnix() ? Peek(connection) : State::kReady;
}

/// Reads what has come, up to kMaxReadAhead bytes, for the acceptor.
TcpServer::Impl::Loop::State TcpServer::Impl::Loop::ReadAhead(HeldConnection& connection) {
    char bytes[kMaxReadAhead];
    std::string& said = connection.bytes;
    for (;;) {
        const ssize_t count = ::recv(connection.fd.Get(), bytes, kMaxReadAhead - said.size(), MSG_DONTWAIT);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0 && errno == EAGAIN) {
            return State::kWaiting;
        }
        if (count <= 0) {
            return State::kReady;  // the acceptor sees the end or the error itself
        }
        said.append(bytes, static_cast<std::size_t>(count));
        if (_listener.IsUnix() && HasControlled(connection, CaptureControl::Find(said))) {
            return State::kControl;
        }
        if (said.size() == kMaxReadAhead || _isReady(said.data(), said.size())) {
            return State::kReady;
        }
    }
}

/// Looks at what has come and leaves it there. A peer that has begun a control command is waited for.
TcpServer::Impl::Loop::State TcpServer::Impl::Loop::Peek(HeldConnection& connection) {
    char bytes[CaptureControl::kMaxLength];
    const ssize_t peeked = ::recv(connection.fd.Get(), bytes, sizeof(bytes), MSG_PEEK | MSG_DONTWAIT);
    if (peeked < 0) {
        return errno == EAGAIN || errno == EINTR ? State::kWaiting : State::kReady;
    }
    const auto command = CaptureControl::Find({bytes, static_cast<std::size_t>(peeked)});
    if (HasControlled(connection, command)) {
        // Taken off the connection, so that closing it is no reset to the peer.
        ::recv(connection.fd.Get(), bytes, sizeof(bytes), MSG_DONTWAIT);
        return State::kControl;
    }
    return command == CaptureControl::Command::kMaybe ? State::kWaiting : State::kReady;
}

/// Carries out a command; false if there is nothing to carry out.
bool TcpServer::Impl::Loop::HasControlled(HeldConnection& connection, CaptureControl::Command command) {
    if (command != CaptureControl::Command::kStart && command != CaptureControl::Command::kStop) {
        return false;
    }
    CaptureControl::Execute(command, connection.fd.Get(), _listener.GetSocket().GetLocalAddress(), *_capture,
                            *_logger);
    return true;
}

void TcpServer::Impl::Loop::Finish(HeldConnection& connection, State state) {
    if (state == State::kReady || state == State::kOver) {
        Serve(connection, state == State::kOver);
    }
}

/// Within a handler of exceptions: a connection that fails is no reason to end the loop.
void TcpServer::Impl::Loop::LogCaught() {
    try {
        try {
            throw;
        } catch (const std::exception& e) {
            _logger->Error("Caught exception handling incoming socket connection: %s", e.what());
        } catch (...) {
            _logger->Error("Caught exception handling incoming socket connection: unknown");
        }
    } catch (...) {
        // There is not even memory for the record.
    }
}

void TcpServer::Impl::Loop::Serve(HeldConnection& held, bool isOver) {
    const auto connection = std::make_shared<TcpSocket::Impl>();
    connection->fd = std::move(held.fd);
    connection->readAhead = std::move(held.bytes);
    connection->connected = true;
    connection->family = _listener.GetSocket().GetFamily();
    connection->port = held.port;
    connection->capture = _capture;
    if (_isReady != nullptr && _limitMs != kWaitForEver) {
        connection->limit = NowMs() + (isOver ? 0 : static_cast<MonotonicMs>(_limitMs));
    }
    connection->serverStop = _stopEvent;
    connection->servedBy = ::pthread_self();
    connection->isServed = true;
    std::unique_ptr<TcpSocket> socket(new TcpSocket(connection));
    try {
        _acceptor->AcceptSocket(socket.release());
    } catch (...) {
        LogCaught();
    }
    // From here on the connection belongs to whatever thread the acceptor has handed it to.
    connection->isServed = false;
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
            return;  // the acceptor: the loop ends when it returns
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

/// The acceptor deletes the server: the thread must not look at it again, and ends with the loop.
void TcpServer::Impl::Loop::LetGoOfOwnThread() {
    const MutexAutoLock lock(&_mutex);
    _thread.reset();
}

TcpServer::TcpServer(const char* address, unsigned short port)
    : _impl(std::make_unique<Impl>(Impl{std::make_shared<Impl::Loop>(address, port)})) {}

TcpServer::~TcpServer() {
    try {
        Stop();
        _impl->loop->LetGoOfOwnThread();
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
    _impl->loop->_isReady = isReady;
    _impl->loop->_limitMs = limitMs;
}

void TcpServer::SetBufferSize(unsigned int bytes) const {
    _impl->loop->_listener.GetSocket().SetBufferSize(bytes);
}

unsigned short TcpServer::GetLocalPort() const {
    return _impl->loop->_listener.GetSocket().GetLocalPort();
}

bool TcpServer::IsFatalError(int error) {
    return std::find(std::begin(kRecoverable), std::end(kRecoverable), error) == std::end(kRecoverable);
}

void TcpServer::DumpPacket(unsigned short sourcePort, unsigned short destinationPort, const void* data,
                           int length) {
    if (length > 0) {
        _impl->loop->_capture->Dump(sourcePort, destinationPort, data, static_cast<std::size_t>(length));
    }
}

std::shared_ptr<PacketCapture> TcpServer::GetCapture() const {
    return _impl->loop->_capture;
}

}  // namespace zarip::osa
