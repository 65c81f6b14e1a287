#include "zarip/osa/TcpServer.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <exception>
#include <iterator>
#include <list>
#include <string>
#include <string_view>

#include "osa/Errors.h"
#include "osa/SocketAddress.h"
#include "osa/TcpSocketImpl.h"
#include "zarip/core/Logger.h"
#include "zarip/osa/ITcpSocketAccept.h"
#include "zarip/osa/MutexAutoLock.h"
#include "zarip/osa/Semaphore.h"
#include "zarip/osa/Thread.h"

namespace zarip::osa {

namespace {

constexpr unsigned int kStackSize = 32'768;
constexpr int kFirstPort = 1'024;
constexpr int kPorts = 65'536;
constexpr std::size_t kMaxHeld = 1'000;
constexpr std::size_t kMaxReadAhead = 4'095;
constexpr std::size_t kControlSize = 15;
constexpr MonotonicMs kControlWaitMs = 2'000;
constexpr int kShortageWaitMs = 100;
constexpr int kMaxAcceptedAtOnce = 16;
constexpr std::string_view kControl = "dump ";
constexpr std::string_view kStartCapture = "dump start\n";
constexpr std::string_view kStopCapture = "dump stop\n";

// Everything else means that accepting will not work again.
constexpr int kRecoverable[] = {EINTR,      EAGAIN,       ENONET,      EPROTO,       ENOPROTOOPT,
                                EOPNOTSUPP, ENETDOWN,     ENETUNREACH, ECONNABORTED, ECONNRESET,
                                EHOSTDOWN,  EHOSTUNREACH, 512 /* ERESTARTSYS */};

/// Passing shortages, of which a server recovers although they are not in the list above.
bool IsShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM || error == EPERM;
}

/// Held connections leave half of the process's descriptors to others.
std::size_t MaxHeld() {
    rlimit limit{};
    return ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur / 2 < kMaxHeld
               ? static_cast<std::size_t>(limit.rlim_cur / 2)
               : kMaxHeld;
}

bool BeginsWith(std::string_view text, std::string_view begin) {
    return text.substr(0, begin.size()) == begin;
}

UniqueFd OpenSpare() {
    return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

}  // namespace

/// The server.
///
/// The accept loop alone touches the listening socket once it runs, the connections it holds and the pseudo
/// port. `_stop` is set once and never cleared. `_mutex` guards the thread, which `Stop` may be called for by
/// several; it is never held while the acceptor runs or the thread is joined.
class ZARIP_HIDDEN TcpServer::Impl {
public:
    Impl(const char* address, unsigned short port) : _socket(address, port) {}

    void Start(TcpServer* server, ITcpSocketAccept* acceptor, unsigned short backlog, unsigned int stackSize,
               signed char priority);
    void Run();
    void Stop();

    TcpSocket _socket;
    std::shared_ptr<PacketCapture> _capture = std::make_shared<PacketCapture>();
    ReadyTest _isReady = nullptr;
    unsigned int _limitMs = kWaitForEver;

private:
    /// A connection that has not said enough to be served.
    struct Held {
        UniqueFd fd;
        unsigned short port;
        MonotonicMs until = 0;
        std::string readAhead = {};
        bool isWatched = false;
        bool isControl = false;
    };
    using HeldList = std::list<Held>;

    void Listen();
    void Loop();
    enum Acceptance { kAccepted, kNone, kFatal };
    bool AcceptWaiting();
    Acceptance Accept();
    void Shed(int error);
    bool Watch(int fd, std::uint32_t events, void* what);
    bool IsUnix() const { return _socket.GetFamily() == AF_UNIX; }
    void Hold(Held accepted);
    void Look(HeldList::iterator held, bool isOver);
    void LogCaught();
    void Control(Held& held, bool isStart);
    bool HasSpoken(Held& held);
    bool ReadAhead(Held& held);
    bool Peek(Held& held);
    bool IsControl(Held& held, std::string_view said);
    void Serve(Held held, bool isOver);
    void ExpireHeld();
    int UntilNextExpiry() const;

    ITcpSocketAccept* _acceptor = nullptr;
    unsigned short _backlog = 1;
    core::Logger* _logger = nullptr;
    std::atomic<bool> _running{false};
    std::atomic<bool> _stop{false};
    std::shared_ptr<CancelEvent> _stopEvent = std::make_shared<CancelEvent>();
    Semaphore _runLock{"TcpServer", 1, 1};
    Semaphore _listening{"TcpServer::listening", 1, 0};
    std::exception_ptr _startFailure;
    int _nextPort = -1;
    std::size_t _maxHeld = kMaxHeld;
    UniqueFd _events;
    UniqueFd _spare;
    HeldList _held;  // the oldest, which expires first, in front

    Mutex _mutex{"TcpServer::_mutex"};
    std::unique_ptr<Thread> _thread ZARIP_GUARDED_BY(_mutex);
};

void TcpServer::Impl::Start(TcpServer* server, ITcpSocketAccept* acceptor, unsigned short backlog,
                            unsigned int stackSize, signed char priority) {
    if (acceptor == nullptr) {
        throw SocketException("Invalid acceptor", SocketException::SocketGeneralError);
    }
    {
        const MutexAutoLock lock(&_mutex);
        if (_thread != nullptr || _stop) {
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

void TcpServer::Impl::Run() {
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
        Loop();
    }
    _held.clear();
    _runLock.Release();
}

void TcpServer::Impl::Listen() {
    const int fd = _socket.getHandle();
    if (_isReady != nullptr && !IsUnix()) {
        // Most clients speak at once, and are then accepted with what they say. The kernel keeps a silent one
        // to itself, but not for long, since it takes a place in the backlog there: where the system has no
        // SYN cookies, a handful would keep everybody else out. After that the loop holds it.
        const int seconds = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_DEFER_ACCEPT, &seconds, sizeof(seconds));
    }
    if (::listen(fd, _backlog) != 0) {
        throw SocketException("listen failed", SocketException::SocketGeneralError);
    }
    _events = UniqueFd(::epoll_create1(EPOLL_CLOEXEC));
    const int stop = _stopEvent->GetFd();
    if (!_events.IsValid() || stop < 0) {
        throw SocketException("pipe failed", SocketException::SocketGeneralError);
    }
    _spare = OpenSpare();
    _maxHeld = MaxHeld();
    if (!Watch(stop, EPOLLIN, _stopEvent.get()) || !Watch(fd, EPOLLIN, &_socket)) {
        ThrowErrno("select failed");
    }
}

bool TcpServer::Impl::Watch(int fd, std::uint32_t events, void* what) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = what;
    return ::epoll_ctl(_events.Get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

void TcpServer::Impl::Loop() {
    epoll_event events[16];
    while (!_stop) {
        const int count = ::epoll_wait(_events.Get(), events, 16, UntilNextExpiry());
        for (int i = 0; i < count && !_stop; ++i) {
            void* const what = events[i].data.ptr;
            if (what == &_socket) {
                if (!AcceptWaiting()) {
                    return;
                }
            } else if (what != _stopEvent.get()) {
                // One that was closed to make room since the events were fetched is not in the list any more.
                const auto held =
                    std::find_if(_held.begin(), _held.end(), [what](const Held& h) { return &h == what; });
                if (held != _held.end()) {
                    Look(held, false);
                }
            }
        }
        ExpireHeld();
    }
}

/// Accepts what waits, but not for ever: held connections want to be looked at as well.
bool TcpServer::Impl::AcceptWaiting() {
    try {
        for (int i = 0; i < kMaxAcceptedAtOnce && !_stop; ++i) {
            switch (Accept()) {
                case kAccepted:
                    break;
                case kNone:
                    return true;
                case kFatal:
                    return false;
            }
        }
    } catch (...) {
        LogCaught();  // memory is short: this connection is lost, not the server
    }
    return true;
}

TcpServer::Impl::Acceptance TcpServer::Impl::Accept() {
    UniqueFd fd(::accept4(_socket.getHandle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!fd.IsValid()) {
        const int error = errno;
        if (error == EAGAIN || _stop) {
            return kNone;
        }
        if (IsShortage(error)) {
            Shed(error);
            return kNone;
        }
        if (IsFatalError(error)) {
            _logger->Error("accept failed with fatal error %d, terminating ::Run loop", error);
            return kFatal;
        }
        _logger->Warning("accept failed with recoverable error %d, retrying accept", error);
        return kNone;
    }
    _nextPort = std::max((_nextPort + 1) % kPorts, kFirstPort);
    Held accepted{std::move(fd), static_cast<unsigned short>(_nextPort)};
    if (_isReady != nullptr || IsUnix()) {
        Hold(std::move(accepted));
    } else {
        Serve(std::move(accepted), false);
    }
    return kAccepted;
}

/// Makes room when the process or the system is short of something; refuses a connection rather than leave it
/// waiting for ever.
void TcpServer::Impl::Shed(int error) {
    _logger->Error("accept failed with recoverable error %d, retrying accept", error);
    if (!_held.empty()) {
        _held.pop_front();
        return;
    }
    _spare = UniqueFd();
    { const UniqueFd refused(::accept4(_socket.getHandle(), nullptr, nullptr, SOCK_CLOEXEC)); }
    _spare = OpenSpare();
    WaitFor(-1, 0, _stopEvent.get(), NowMs() + kShortageWaitMs);
}

void TcpServer::Impl::Hold(Held accepted) {
    if (_held.size() >= _maxHeld) {
        _held.pop_front();
    }
    const MonotonicMs wait = _isReady != nullptr ? static_cast<MonotonicMs>(_limitMs) : kControlWaitMs;
    accepted.until = NowMs() + wait;
    _held.push_back(std::move(accepted));
    Look(std::prev(_held.end()), false);
}

/// Serves a held connection that has said enough, or whose time is over.
void TcpServer::Impl::Look(HeldList::iterator held, bool isOver) {
    bool isReady = false;
    bool isLost = false;
    try {
        isReady = HasSpoken(*held);
    } catch (...) {
        LogCaught();
        isLost = true;
    }
    if (!isLost && !isReady && !isOver) {
        if (held->isWatched || Watch(held->fd.Get(), EPOLLIN | EPOLLRDHUP | EPOLLET, &*held)) {
            held->isWatched = true;
            return;
        }
        _logger->Error("connection dropped, it cannot be waited for: error %d", errno);
        isLost = true;
    }
    if (isLost || held->isControl) {
        _held.erase(held);
        return;
    }
    if (held->isWatched) {
        ::epoll_ctl(_events.Get(), EPOLL_CTL_DEL, held->fd.Get(), nullptr);
    }
    Held served = std::move(*held);
    _held.erase(held);
    Serve(std::move(served), !isReady && _isReady != nullptr);
}

/// Whether the connection has said enough to be served, or it has been a control connection.
bool TcpServer::Impl::HasSpoken(Held& held) {
    return _isReady != nullptr ? ReadAhead(held) : Peek(held);
}

/// Reads what has come, up to kMaxReadAhead bytes, for the one who will serve the connection.
bool TcpServer::Impl::ReadAhead(Held& held) {
    char bytes[kMaxReadAhead];
    for (;;) {
        const ssize_t count =
            ::recv(held.fd.Get(), bytes, kMaxReadAhead - held.readAhead.size(), MSG_DONTWAIT);
        if (count <= 0) {
            return count == 0 || (errno != EAGAIN && errno != EINTR);
        }
        held.readAhead.append(bytes, static_cast<std::size_t>(count));
        if (IsControl(held, held.readAhead) || held.readAhead.size() == kMaxReadAhead ||
            _isReady(held.readAhead.data(), held.readAhead.size())) {
            return true;
        }
    }
}

/// Looks at what has come and leaves it there. A peer that has begun a control command is waited for.
bool TcpServer::Impl::Peek(Held& held) {
    char bytes[kControlSize];
    const ssize_t peeked = ::recv(held.fd.Get(), bytes, sizeof(bytes), MSG_PEEK | MSG_DONTWAIT);
    if (peeked < 0) {
        return errno != EAGAIN && errno != EINTR;
    }
    const std::string_view said(bytes, static_cast<std::size_t>(peeked));
    if (IsControl(held, said)) {
        // Taken off the connection, so that closing it is no reset to the peer.
        ::recv(held.fd.Get(), bytes, sizeof(bytes), MSG_DONTWAIT);
        return true;
    }
    return !BeginsWith(said, kControl) ||
           !(BeginsWith(kStartCapture, said) || BeginsWith(kStopCapture, said));
}

/// Whether the peer has said a control command, which is then carried out.
bool TcpServer::Impl::IsControl(Held& held, std::string_view said) {
    const bool isStart = BeginsWith(said, kStartCapture);
    if (!IsUnix() || (!isStart && !BeginsWith(said, kStopCapture))) {
        return false;
    }
    held.isControl = true;
    Control(held, isStart);
    return true;
}

void TcpServer::Impl::Control(Held& held, bool isStart) {
    ucred peer{};
    socklen_t size = sizeof(peer);
    if (::getsockopt(held.fd.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
        (peer.uid != 0 && peer.uid != ::geteuid())) {
        _logger->Warning("packet capture: user %u is not allowed to control it", peer.uid);
    } else if (!isStart) {
        _capture->Close();
    } else {
        const std::string file = PacketCapture::FileFor(_socket.GetLocalAddress());
        if (!_capture->Open(file)) {
            _logger->Error("packet capture: cannot write %s", file.c_str());
        }
    }
}

/// Within a handler: a connection that fails is no reason to end the loop.
void TcpServer::Impl::LogCaught() {
    try {
        throw;
    } catch (const std::exception& e) {
        _logger->Error("Caught exception handling incoming socket connection: %s", e.what());
    } catch (...) {
        _logger->Error("Caught exception handling incoming socket connection: unknown");
    }
}

void TcpServer::Impl::Serve(Held held, bool isOver) {
    auto connection = std::make_shared<TcpSocket::Impl>();
    connection->fd = std::move(held.fd);
    connection->readAhead = std::move(held.readAhead);
    connection->connected = true;
    connection->family = _socket.GetFamily();
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
    // From here on the connection belongs to whoever kept it, on any thread.
    connection->isServed = false;
}

void TcpServer::Impl::ExpireHeld() {
    while (!_held.empty() && !_stop && _held.front().until <= NowMs()) {
        Look(_held.begin(), true);
    }
}

int TcpServer::Impl::UntilNextExpiry() const {
    if (_held.empty()) {
        return -1;
    }
    return static_cast<int>(std::clamp<MonotonicMs>(_held.front().until - NowMs(), 0, 60'000));
}

void TcpServer::Impl::Stop() {
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
    // Nobody will accept: clients are refused at once instead of waiting in the backlog.
    _socket.Close();
    const MutexAutoLock lock(&_mutex);
    _thread.reset();
}

TcpServer::TcpServer(const char* address, unsigned short port)
    : _impl(std::make_unique<Impl>(address, port)) {}

TcpServer::~TcpServer() {
    try {
        Stop();
    } catch (...) {
        // Nothing more can be done for the thread.
    }
}

void TcpServer::Start(ITcpSocketAccept* acceptor, unsigned short backlog, unsigned int stackSize,
                      signed char priority) {
    _impl->Start(this, acceptor, backlog, stackSize, priority);
}

void TcpServer::Start(ITcpSocketAccept* acceptor, unsigned short backlog) {
    Start(acceptor, backlog, kStackSize, 0);
}

void TcpServer::Run() {
    _impl->Run();
}

void TcpServer::Stop() {
    _impl->Stop();
}

void TcpServer::HoldConnections(ReadyTest isReady, unsigned int limitMs) {
    _impl->_isReady = isReady;
    _impl->_limitMs = limitMs;
}

void TcpServer::SetBufferSize(unsigned int bytes) const {
    _impl->_socket.SetBufferSize(bytes);
}

unsigned short TcpServer::GetLocalPort() const {
    return _impl->_socket.GetLocalPort();
}

bool TcpServer::IsFatalError(int error) {
    return std::find(std::begin(kRecoverable), std::end(kRecoverable), error) == std::end(kRecoverable);
}

void TcpServer::DumpPacket(unsigned short sourcePort, unsigned short destinationPort, const void* data,
                           int length) {
    if (length > 0) {
        _impl->_capture->Dump(sourcePort, destinationPort, data, static_cast<std::size_t>(length));
    }
}

std::shared_ptr<PacketCapture> TcpServer::GetCapture() const {
    return _impl->_capture;
}

}  // namespace zarip::osa
