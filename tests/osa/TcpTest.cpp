// SPDX-License-Identifier: MIT

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>

#include "support/ErrorOf.h"
#include "support/LogCapture.h"
#include "support/ShortMemory.h"
#include "support/WaitUntil.h"
#include "zarip/osa/IOException.h"
#include "zarip/osa/ITcpSocketAccept.h"
#include "zarip/osa/Semaphore.h"
#include "zarip/osa/SocketException.h"
#include "zarip/osa/TcpServer.h"
#include "zarip/osa/TcpSocket.h"
#include "zarip/osa/TcpSocketStream.h"

namespace zarip::osa {
namespace {

using std::string;
using test::WaitUntil;

using test::Outcome;

template <class Action>
Outcome OutcomeOf(Action action) {
    return test::OutcomeOf<SocketException>(action);
}

const Outcome kTimeout = {"Timeout", SocketException::SocketTimeout};
const Outcome kClosed = {"Socket was closed", SocketException::SocketGeneralError};

/// Passes connections to a function on the server's thread.
class Acceptor : public ITcpSocketAccept {
public:
    using Function = std::function<void(TcpSocket&)>;
    explicit Acceptor(Function function) : _function(std::move(function)) {}
    void AcceptSocket(TcpSocket* socket) override {
        const std::unique_ptr<TcpSocket> owned(socket);
        _function(*socket);
        ++_served;
    }
    std::atomic<int> _served{0};

private:
    Function _function;
};

void Echo(TcpSocket& socket) {
    char buffer[4096];
    while (const unsigned int count = socket.Recv(buffer, sizeof(buffer), 10)) {
        socket.SendAll(buffer, count);
    }
}

/// Keeps the connections.
class Keeper : public ITcpSocketAccept {
public:
    void AcceptSocket(TcpSocket* socket) override {
        _socket.reset(socket);
        _accepted.Release();
    }
    TcpSocket& Wait() {
        _accepted.Lock();
        return *_socket;
    }
    std::unique_ptr<TcpSocket> _socket;
    Semaphore _accepted{"accepted", 1000, 0};
};

std::unique_ptr<TcpSocket> ConnectTo(const TcpServer& server) {
    auto client = std::make_unique<TcpSocket>();
    client->Connect("127.0.0.1", server.GetLocalPort(), 10);
    return client;
}

/// A client and the server's end of its connection.
class TcpPair : public testing::Test {
protected:
    TcpSocket& Connect() {
        server->Start(&keeper, 1);
        client.Connect("127.0.0.1", server->GetLocalPort(), 10);
        return keeper.Wait();
    }

    Keeper keeper;
    std::unique_ptr<TcpServer> server =
        std::make_unique<TcpServer>("127.0.0.1", static_cast<unsigned short>(0));
    TcpSocket client;
    TcpSocket& peer = Connect();
};

int OptionOf(const TcpSocket& socket, int option) {
    int value = 0;
    socklen_t size = sizeof(value);
    ::getsockopt(socket.getHandle(), SOL_SOCKET, option, &value, &size);
    return value;
}

string ReceiveAll(TcpSocket& socket) {
    string text;
    char buffer[4096];
    while (const unsigned int count = socket.Recv(buffer, sizeof(buffer), 10)) {
        text.append(buffer, count);
    }
    return text;
}

string UnixName(const char* what) {
    return string("zarip-test-") + what + "-" + std::to_string(::getpid());
}

string ReadFile(const string& path) {
    std::ifstream file(path, std::ios::binary);
    return string(std::istreambuf_iterator<char>(file), {});
}

int CountDescriptors() {
    int count = 0;
    for (int fd = 0; fd < 4096; ++fd) {
        count += ::fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
    }
    return count;
}

class EveryFamily : public testing::TestWithParam<const char*> {
protected:
    EveryFamily() {
        try {
            const string address = GetParam();
            _address = address == "unix" ? UnixName("family") : address;
            _server = std::make_unique<TcpServer>(_address.c_str(), static_cast<unsigned short>(0));
        } catch (const SocketException&) {
        }
    }
    std::unique_ptr<TcpSocket> Connect() {
        auto client = std::make_unique<TcpSocket>();
        client->Connect(_address.c_str(), _server->GetLocalPort(), 10);
        return client;
    }
    string _address;
    std::unique_ptr<TcpServer> _server;
};

TEST_P(EveryFamily, CarriesBytesBothWays) {
    if (!_server) {
        GTEST_SKIP() << "no such address family here";
    }
    Acceptor acceptor(Echo);
    _server->Start(&acceptor, 5);
    const auto client = Connect();
    string sent(100'000, '\0');
    for (std::size_t i = 0; i < sent.size(); ++i) {
        sent[i] = static_cast<char>(i * 7);
    }
    auto sending = std::async(std::launch::async, [&] {
        client->SendAll(sent.data(), static_cast<unsigned int>(sent.size()));
        client->SendAll(nullptr, 0);
        client->ShutdownSend();
    });
    EXPECT_EQ(ReceiveAll(*client), sent);
    sending.get();
    char byte = 0;
    EXPECT_EQ(client->Recv(&byte, 1, 1), 0U);
    _server->Stop();
    _server->Stop();
    EXPECT_NE(OutcomeOf([&] { Connect(); }).code, -1);
}

INSTANTIATE_TEST_SUITE_P(Tcp, EveryFamily, testing::Values("127.0.0.1", "::1", "::", "unix"));

TEST(TcpSocket, LocalAddressesFollowTheirRules) {
    const TcpSocket any("0.0.0.0", 0);
    EXPECT_EQ(any.GetFamily(), AF_INET);
    EXPECT_EQ(any.GetLocalAddress(), "0.0.0.0");
    EXPECT_NE(any.GetLocalPort(), 0);
    const string name = UnixName("folder") + "/a/b";
    {
        const TcpSocket named(name.c_str(), 0);
        EXPECT_EQ(named.GetFamily(), AF_UNIX);
        EXPECT_EQ(named.GetLocalAddress(), "/tmp/sockets/" + name);
        const TcpSocket again(("/tmp/sockets/" + name).c_str(), 0);
        EXPECT_EQ(again.GetLocalAddress(), "/tmp/sockets/" + name);
    }
    ::unlink(("/tmp/sockets/" + name).c_str());

    const Outcome tooLong = {"Address Too Long", SocketException::SocketAddressError};
    EXPECT_EQ(OutcomeOf([] { TcpSocket socket(string(120, 'x').c_str(), 0); }), tooLong);
    EXPECT_EQ(OutcomeOf([] { TcpSocket socket(string(95, 'x').c_str(), 0); }), tooLong);
    const Outcome bad = {"Address Contains Invalid Character", SocketException::SocketAddressError};
    EXPECT_EQ(OutcomeOf([] { TcpSocket socket("a\nb", 0); }), bad);
    EXPECT_EQ(OutcomeOf([] { TcpSocket socket("caf\xc3\xa9", 0); }), bad);
    const Outcome taken = OutcomeOf([] { TcpSocket socket("192.0.2.1", 0); });
    EXPECT_EQ(taken.text, "Unable to bind socket to 192.0.2.1 -- Cannot assign requested address (99)");
    EXPECT_EQ(taken.code, SocketException::SocketConfigError);
    const Outcome family = {"Invalid family passed to constructor", SocketException::SocketGeneralError};
    EXPECT_EQ(OutcomeOf([] { TcpSocket socket(static_cast<unsigned short>(99)); }), family);
}

TEST(TcpSocket, WrapsAConnectedDescriptorAndOwnsItAlsoWhenItRefuses) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    TcpSocket socket(static_cast<unsigned int>(ends[0]), 7, nullptr);
    ::close(ends[1]);
    EXPECT_EQ(socket.GetLocalPort(), 7);
    EXPECT_EQ(OutcomeOf([&] { socket.GetRemotePort(); }).text, "unknown socket family");
    // The peer is gone: an error, not a signal.
    EXPECT_EQ(OutcomeOf([&] { socket.SendAll("x", 1); }),
              (Outcome{"send failed: errno(32): Broken pipe", SocketException::SocketGeneralError}));
    socket.Close();
    socket.Close();
    EXPECT_EQ(socket.getHandle(), -1);
    EXPECT_EQ(OutcomeOf([&] { socket.Send("x", 1); }),
              (Outcome{"Socket Not Connected", SocketException::SocketAddressError}));

    EXPECT_EQ(OutcomeOf([] { TcpSocket bad(0xFFFFFFFFU, 0, nullptr); }).text,
              "Invalid socket passed to constructor");
    const int unconnected = ::socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(OutcomeOf([&] { TcpSocket bad(static_cast<unsigned int>(unconnected), 0, nullptr); }).text,
              "getpeername failed");
    EXPECT_EQ(::fcntl(unconnected, F_GETFD), -1);
}

TEST(TcpSocket, ConnectFailsWithTheReason) {
    // Bound and not listening: refused.
    const TcpSocket bound("127.0.0.1", 0);
    const unsigned short port = bound.GetLocalPort();
    TcpSocket client;
    EXPECT_EQ(OutcomeOf([&] { client.Connect("127.0.0.1", port, 5); }),
              (Outcome{"Timeout: Failed to establish connection to 127.0.0.1:" + std::to_string(port),
                       SocketException::SocketTimeout}));
    EXPECT_EQ(OutcomeOf([&] { client.Connect("zarip-nobody-listens", 0, 5); }),
              (Outcome{"connect failed: errno(2): No such file or directory",
                       SocketException::SocketGeneralError}));
}

TEST_F(TcpPair, ReceivingTimesOutPeeksAndIsCancelledForGood) {
    EXPECT_EQ(peer.GetLocalPort(), 1024);
    EXPECT_EQ(peer.GetRemoteAddress(), "127.0.0.1");
    EXPECT_EQ(client.GetRemotePort(), server->GetLocalPort());
    EXPECT_EQ(::fcntl(client.getHandle(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(::fcntl(peer.getHandle(), F_GETFD), FD_CLOEXEC);

    char buffer[16] = {};
    EXPECT_EQ(OutcomeOf([&] { client.Recv(buffer, sizeof(buffer), 0); }), kTimeout);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(OutcomeOf([&] { client.Recv(buffer, sizeof(buffer), 1); }), kTimeout);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(990));
    peer.SendAll("hello", 5);
    EXPECT_EQ(client.Peek(buffer, 2), 2U);
    EXPECT_EQ(client.Recv(buffer, sizeof(buffer), 10), 5U);
    EXPECT_STREQ(buffer, "hello");

    auto blocked = std::async(std::launch::async, [&] {
        char byte = 0;
        return OutcomeOf([&] { client.Recv(&byte, 1, kWaitForEver); });
    });
    client.CancelRecv();
    EXPECT_EQ(blocked.get(), kClosed);
    peer.SendAll("late", 4);
    EXPECT_EQ(OutcomeOf([&] { client.Recv(buffer, 1, 1); }), kClosed);
    EXPECT_EQ(OutcomeOf([&] { client.Peek(buffer, 1); }), kClosed);
    client.SendAll("still sends", 11);
    EXPECT_EQ(peer.Recv(buffer, 5, 10), 5U);
}

TEST(TcpSocket, TheReaderThatIsCancelledMayDeleteTheSocketAtOnce) {
    for (int i = 0; i < 200; ++i) {
        int ends[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        auto* const socket = new TcpSocket(static_cast<unsigned int>(ends[0]), 0, nullptr);
        auto reading = std::async(std::launch::async, [socket] {
            const std::unique_ptr<TcpSocket> owned(socket);
            char byte = 0;
            return OutcomeOf([&] { owned->Recv(&byte, 1, 10); });
        });
        socket->CancelRecv();
        EXPECT_EQ(reading.get(), kClosed);
        ::close(ends[1]);
    }
}

TEST(TcpSocket, OptionsSetBeforeConnectAreTheConnections) {
    Keeper keeper;
    Keeper ofNamed;
    TcpServer ipv4("127.0.0.1", 0);
    TcpServer named(UnixName("options").c_str(), 0);
    ipv4.Start(&keeper, 5);
    named.Start(&ofNamed, 5);
    const int on = 1;
    TcpSocket client;
    client.SetBufferSize(20'000);
    ::setsockopt(client.getHandle(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
    client.Connect("127.0.0.1", ipv4.GetLocalPort(), 10);
    EXPECT_EQ(OptionOf(client, SO_RCVBUF), 40'000);  // the kernel doubles it
    EXPECT_EQ(OptionOf(client, SO_KEEPALIVE), 1);
    // A socket of another family has to be made, and gets the size, too.
    client.Connect(UnixName("options").c_str(), 0, 10);
    EXPECT_EQ(OptionOf(client, SO_RCVBUF), 40'000);
}

TEST(TcpSocket, AClosedSocketHasForgottenWhatWasReadAheadAndTheCapture) {
    const string name = UnixName("forgets");
    const string file = "/tmp/" + name + ".pcap";
    TcpServer server(name.c_str(), 0);
    server.HoldConnections([](const char*, std::size_t length) { return length >= 5; }, 10'000);
    Keeper keeper;
    server.Start(&keeper, 5);
    TcpSocket control;
    control.Connect(name.c_str(), 0, 10);
    control.SendAll("dump start\n", 11);
    EXPECT_EQ(ReceiveAll(control), "");
    TcpSocket client;
    client.Connect(name.c_str(), 0, 10);
    client.SendAll("stale", 5);
    TcpSocket& peer = keeper.Wait();
    peer.Close();
    EXPECT_EQ(ReceiveAll(client), "");

    Acceptor echo(Echo);
    TcpServer other("127.0.0.1", 0);
    other.Start(&echo, 5);
    peer.Connect("127.0.0.1", other.GetLocalPort(), 10);
    peer.SendAll("fresh", 5);
    peer.ShutdownSend();
    EXPECT_EQ(ReceiveAll(peer), "fresh");
    EXPECT_EQ(ReadFile(file).size(), 24U);
    ::unlink(file.c_str());
}

TEST_F(TcpPair, ATimeLimitEndsAPeerThatDribblesAndOneThatDoesNotRead) {
    client.SetTimeLimit(300);
    std::atomic<bool> over{false};
    auto dribbling = std::async(std::launch::async, [&] {
        while (!over) {
            peer.SendAll(".", 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    EXPECT_EQ(OutcomeOf([&] {
                  char byte = 0;
                  while (client.Recv(&byte, 1, 5) == 1) {
                  }
              }),
              kTimeout);
    over = true;
    dribbling.get();
    client.SetTimeLimit(200);
    const string much(1'000'000, 'x');
    EXPECT_EQ(OutcomeOf([&] {
                  for (int i = 0; i < 1000; ++i) {
                      client.SendAll(much.data(), static_cast<unsigned int>(much.size()));
                  }
              }),
              kTimeout);
}

TEST(TcpSocket, DescriptorsAbove1024Work) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < 2000) {
        GTEST_SKIP() << "only " << limit.rlim_cur << " descriptors allowed";
    }
    const int high = ::fcntl(0, F_DUPFD, 1500);
    std::vector<int> fill;
    for (int fd = ::dup(0); fd < 1100; fd = ::dup(0)) {
        fill.push_back(fd);
    }
    {
        Acceptor acceptor(Echo);
        TcpServer server("127.0.0.1", 0);
        server.Start(&acceptor, 1);
        TcpSocket client;
        client.Connect("127.0.0.1", server.GetLocalPort(), 10);
        EXPECT_GT(client.getHandle(), 1024);
        client.SendAll("x", 1);
        char byte = 0;
        EXPECT_EQ(client.Recv(&byte, 1, 10), 1U);
    }
    for (const int fd : fill) {
        ::close(fd);
    }
    ::close(high);
}

TEST(TcpServer, StopsPromptlyInEveryState) {
    {
        TcpServer neverStarted("127.0.0.1", 0);
        neverStarted.Stop();
    }
    for (const char* address : {"127.0.0.2", "127.0.0.1"}) {
        Acceptor acceptor(Echo);
        TcpServer server(address, 0);
        server.Start(&acceptor, 1);
        server.Stop();
    }
    // In the middle of a connection that says nothing, and of one that reads nothing.
    for (const bool sends : {false, true}) {
        Semaphore serving("serving", 1, 0);
        std::atomic<bool> cancelled{false};
        Acceptor acceptor([&](TcpSocket& socket) {
            serving.Release();
            const string much(1'000'000, 'x');
            char byte = 0;
            try {
                while (sends || socket.Recv(&byte, 1, kWaitForEver) == 1) {
                    socket.SendAll(much.data(), static_cast<unsigned int>(much.size()));
                }
            } catch (const SocketException& e) {
                cancelled = e.ToString() == "Socket was closed";
            }
        });
        TcpServer server("127.0.0.1", 0);
        server.Start(&acceptor, 1);
        TcpSocket client;
        client.Connect("127.0.0.1", server.GetLocalPort(), 10);
        serving.Lock();
        server.Stop();
        EXPECT_TRUE(cancelled);
    }
}

TEST_F(TcpPair, AConnectionOutlivesItsServer) {
    server.reset();
    peer.SendAll("alive", 5);
    char buffer[8] = {};
    EXPECT_EQ(client.Recv(buffer, 5, 10), 5U);
}

TEST(TcpServer, IsNotStartedAgainAndKeepsItsFirstAcceptor) {
    Acceptor acceptor(Echo);
    Keeper other;
    TcpServer server("127.0.0.1", 0);
    server.Start(&acceptor, 5);
    server.Start(&other, 5);
    const auto client = ConnectTo(server);
    client->ShutdownSend();
    EXPECT_EQ(ReceiveAll(*client), "");
    server.Stop();
    EXPECT_EQ(OutcomeOf([&] { server.Start(&acceptor, 5); }),
              (Outcome{"Server was stopped", SocketException::SocketGeneralError}));
}

TEST(TcpServer, ItsAcceptorMayStopItAndDeleteIt) {
    for (const bool deletes : {false, true}) {
        std::unique_ptr<TcpServer> server = std::make_unique<TcpServer>("127.0.0.1", 0);
        const unsigned short port = server->GetLocalPort();
        Acceptor acceptor([&](TcpSocket&) { deletes ? server.reset() : server->Stop(); });
        server->Start(&acceptor, 5);
        const auto client = ConnectTo(*server);
        ReceiveAll(*client);
        // The server does not listen any more, also without a call of `Stop`.
        EXPECT_TRUE(WaitUntil([&] {
            TcpSocket late;
            return OutcomeOf([&] { late.Connect("127.0.0.1", port, 10); }).code ==
                   SocketException::SocketTimeout;
        }));
        EXPECT_TRUE(WaitUntil([&] { return acceptor._served == 1; }));
        EXPECT_EQ(server == nullptr, deletes);
    }
}

TEST(TcpServer, AFailedAllocationCostsAConnectionAndNotTheProcess) {
    if (!test::ShortMemory::IsSupported()) {
        GTEST_SKIP() << "the sanitizer has an allocator of its own";
    }
    const string name = UnixName("memory");
    Acceptor acceptor(Echo);
    TcpServer server(name.c_str(), 0);
    server.Start(&acceptor, 5);
    const auto ask = [&] {
        TcpSocket client;
        client.Connect(name.c_str(), 0, 10);
        client.SendAll("x", 1);
        char byte = 0;
        EXPECT_EQ(client.Recv(&byte, 1, 10), 1U);
    };
    TcpSocket held;
    held.Connect(name.c_str(), 0, 10);
    ask();  // by now the server holds the one before
    TcpSocket accepted;
    {
        const test::ShortMemory memory("TcpSocketThread");
        held.SendAll("x", 1);
        EXPECT_TRUE(WaitUntil([&] { return test::ShortMemory::GetFailures() > 0; }));
        accepted.Connect(name.c_str(), 0, 10);
        EXPECT_EQ(ReceiveAll(accepted), "");
    }
    ask();
}

TEST(TcpServer, TellsWhyItCannotListen) {
    // SO_REUSEADDR lets both bind while none listens; then one of them is too late.
    Keeper keeper;
    TcpServer first("127.0.0.1", 0);
    TcpServer second("127.0.0.1", first.GetLocalPort());
    first.Start(&keeper, 1);
    EXPECT_EQ(OutcomeOf([&] { second.Start(&keeper, 1); }),
              (Outcome{"listen failed", SocketException::SocketGeneralError}));
}

TEST(TcpServer, SurvivesWhatItsAcceptorThrowsAndPeersThatReset) {
    test::LogCapture log(core::Logger::kError);
    std::atomic<int> calls{0};
    Acceptor acceptor([&](TcpSocket&) {
        switch (++calls % 3) {
            case 1:
                throw IOException("%s 100%");
            case 2:
                throw 42;
            default:
                break;
        }
    });
    TcpServer server("127.0.0.1", 0);
    server.Start(&acceptor, 10);
    const linger reset = {1, 0};
    for (int i = 0; i < 60; ++i) {
        TcpSocket client;
        client.Connect("127.0.0.1", server.GetLocalPort(), 10);
        ::setsockopt(client.getHandle(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    }
    EXPECT_TRUE(WaitUntil([&] { return calls == 60; }));
    server.Stop();
    EXPECT_EQ(log.Count("Caught exception handling incoming socket connection: %s 100%"), 20);
    EXPECT_EQ(log.Count("Caught exception handling incoming socket connection: unknown"), 20);
}

TEST(TcpServer, TenThousandConnectionsLeaveNoDescriptorBehindAndPseudoPortsWrap) {
    std::atomic<int> last{0};
    Acceptor acceptor([&](TcpSocket& socket) { last = socket.GetLocalPort(); });
    TcpServer server(UnixName("many").c_str(), 0);
    server.Start(&acceptor, 100);
    const int before = CountDescriptors();
    for (int i = 1; i <= 10'000; ++i) {
        TcpSocket client;
        client.Connect(UnixName("many").c_str(), 0, 10);
        if (i == 1025) {
            client.Close();
            ASSERT_TRUE(WaitUntil([&] { return acceptor._served == 1025; }));
            EXPECT_EQ(last, 2048);
        }
    }
    EXPECT_TRUE(WaitUntil([&] { return acceptor._served == 10'000; }));
    EXPECT_EQ(CountDescriptors(), before);
}

TEST(TcpServer, AShortageOfDescriptorsPasses) {
    Acceptor acceptor(Echo);
    TcpServer server("127.0.0.1", 0);
    server.Start(&acceptor, 10);
    test::LogCapture log(core::Logger::kError);
    TcpSocket client;
    TcpSocket second;
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const int lowest = ::dup(0);
    ::close(lowest);
    // Connecting replaces the client's descriptor; nothing is left for the server's.
    const rlimit none = {static_cast<rlim_t>(lowest), limit.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &none);
    client.Connect("127.0.0.1", server.GetLocalPort(), 10);
    const bool refused = WaitUntil([&] { return log.Contains("accept failed with recoverable error 24"); });
    ::setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_TRUE(refused);
    second.Connect("127.0.0.1", server.GetLocalPort(), 10);
    second.SendAll("x", 1);
    char byte = 0;
    EXPECT_EQ(second.Recv(&byte, 1, 10), 1U);
}

TEST(TcpServer, OnlyTheListedErrorsOfAcceptAreRecoverable) {
    for (int error = 0; error <= 600; ++error) {
        const bool isListed = error == 4 || error == 11 || error == 64 || error == 71 || error == 92 ||
                              error == 95 || error == 100 || error == 101 || error == 103 || error == 104 ||
                              error == 112 || error == 113 || error == 512;
        EXPECT_EQ(TcpServer::IsFatalError(error), !isListed) << error;
    }
}

class CaptureTest : public testing::Test {
protected:
    CaptureTest() : _name(UnixName("capture")), _file("/tmp/" + _name + ".pcap") { ::unlink(_file.c_str()); }
    ~CaptureTest() override { ::unlink(_file.c_str()); }

    void Control(const string& command) {
        TcpSocket control;
        control.Connect(_name.c_str(), 0, 10);
        control.SendAll(command.data(), static_cast<unsigned int>(command.size()));
        char byte = 0;
        EXPECT_EQ(control.Recv(&byte, 1, 10), 0U);
    }

    string _name;
    string _file;
};

TEST_F(CaptureTest, AControlConnectionStartsAndStopsIt) {
    Acceptor acceptor(Echo);
    TcpServer server(_name.c_str(), 0);
    server.Start(&acceptor, 5);
    TcpSocket control;
    control.Connect(_name.c_str(), 0, 10);
    control.SendAll("dump ", 5);
    char buffer[4];
    {
        // It is served after the half command, so that has been read by then.
        TcpSocket other;
        other.Connect(_name.c_str(), 0, 10);
        other.SendAll("x", 1);
        ASSERT_EQ(other.Recv(buffer, 1, 10), 1U);
    }
    ASSERT_TRUE(WaitUntil([&] { return acceptor._served == 1; }));
    control.SendAll("start\n", 6);
    EXPECT_EQ(control.Recv(buffer, 1, 10), 0U);
    EXPECT_EQ(ReadFile(_file),
              string("\xD4\xC3\xB2\xA1\x02\0\x04\0\0\0\0\0\0\0\0\0\xFF\xFF\0\0\x01\0\0\0", 24));

    TcpSocket client;
    client.Connect(_name.c_str(), 0, 10);
    client.SendAll("ab", 2);
    ASSERT_EQ(client.Recv(buffer, 2, 10), 2U);
    client.Close();
    ASSERT_TRUE(WaitUntil([&] { return acceptor._served == 2; }));
    Control("dump stop\n");
    const string capture = ReadFile(_file);
    ASSERT_EQ(capture.size(), 24U + 2 * 80U);
    const string received = capture.substr(24 + 8, 72);
    // The third connection: the one that started the capture has a pseudo port as well.
    const unsigned int sum = 24'930 + 1'026 + 17 + 20;
    string expected("\x40\0\0\0\x40\0\0\0", 8);
    expected += string(12, '\0') + string("\x08\0\x60\0\0\0\0\x0A\x11\x40", 10) + string(32, '\0');
    expected += string("\x04\x02\0\0\0\x0A", 6);
    expected += static_cast<char>((~sum >> 8) & 0xFF);
    expected += static_cast<char>(~sum & 0xFF);
    expected += "ab";
    EXPECT_EQ(received, expected);
    EXPECT_EQ(capture.substr(24 + 80 + 70, 4), string("\0\0\x04\x02", 4));

    server.DumpPacket(1, 2, "x", 1);
    EXPECT_EQ(ReadFile(_file).size(), capture.size());
}

TEST_F(CaptureTest, WritesIntoNothingThatIsNotItsOwnRegularFile) {
    const string victim = _file + ".victim";
    std::ofstream(victim) << "keep";
    ASSERT_EQ(::symlink(victim.c_str(), _file.c_str()), 0);
    test::LogCapture log(core::Logger::kError);
    Acceptor acceptor(Echo);
    TcpServer server(_name.c_str(), 0);
    server.Start(&acceptor, 5);
    Control("dump start\n");
    EXPECT_EQ(ReadFile(victim), "keep");
    ::unlink(_file.c_str());
    ASSERT_EQ(::link(victim.c_str(), _file.c_str()), 0);
    Control("dump start\n");
    EXPECT_EQ(ReadFile(victim), "keep");
    EXPECT_EQ(log.Count("packet capture: cannot write " + _file), 2);
    ::unlink(victim.c_str());
}

TEST_F(CaptureTest, LongPayloadsGoIntoSeveralRecordsAndConnectionsMayOutliveTheServer) {
    auto server = std::make_unique<TcpServer>(_name.c_str(), static_cast<unsigned short>(0));
    Keeper keeper;
    server->Start(&keeper, 5);
    Control("dump start\n");
    TcpSocket client;
    client.Connect(_name.c_str(), 0, 10);
    client.SendAll("x", 1);
    TcpSocket& peer = keeper.Wait();
    server->DumpPacket(5, 6, string(100'000, 'y').data(), 100'000);
    server->DumpPacket(5, 6, "", 0);
    server->DumpPacket(5, 6, "negative", -1);
    EXPECT_EQ(ReadFile(_file).size(), 24U + 2 * 78U + 100'000U);
    server.reset();
    peer.SendAll("after", 5);
    EXPECT_EQ(ReadFile(_file).size(), 24U + 3 * 78U + 100'005U);
}

TEST_F(CaptureTest, EndsBeforeItsFileExceeds64Mebibyte) {
    Keeper keeper;
    TcpServer server(_name.c_str(), 0);
    server.Start(&keeper, 5);
    Control("dump start\n");
    test::LogCapture log(core::Logger::kWarning);
    const string payload(65'000, 'x');
    for (int i = 0; i < 1'100; ++i) {
        server.DumpPacket(1, 2, payload.data(), static_cast<int>(payload.size()));
    }
    const std::size_t record = 78 + payload.size();
    EXPECT_EQ(ReadFile(_file).size(), 24 + (64 * 1024 * 1024 - 24) / record * record);
    EXPECT_EQ(log.Count("packet capture: stopped"), 1);
}

TEST_F(CaptureTest, SilentClientsOfAUnixServerDoNotHoldUpOthers) {
    Acceptor acceptor(Echo);
    TcpServer server(_name.c_str(), 0);
    server.Start(&acceptor, 100);
    std::vector<std::unique_ptr<TcpSocket>> silent;
    for (int i = 0; i < 50; ++i) {
        silent.push_back(std::make_unique<TcpSocket>());
        silent.back()->Connect(_name.c_str(), 0, 10);
    }
    TcpSocket client;
    client.Connect(_name.c_str(), 0, 10);
    client.SendAll("x", 1);
    char byte = 0;
    EXPECT_EQ(client.Recv(&byte, 1, 10), 1U);
    client.Close();
    EXPECT_TRUE(WaitUntil([&] { return acceptor._served == 1; }));
    // After two seconds they are passed on like all others.
    silent.resize(1);
    silent[0]->SendAll("late", 4);
    EXPECT_EQ(silent[0]->Recv(&byte, 1, 10), 1U);
}

bool HasLine(const char* bytes, std::size_t length) {
    return std::memchr(bytes, '\n', length) != nullptr;
}

TEST(TcpServer, HoldsConnectionsUntilTheyAreReadyAndNotLonger) {
    std::atomic<int> timeouts{0};
    Acceptor acceptor([&](TcpSocket& socket) {
        char buffer[64];
        try {
            while (const unsigned int count = socket.Recv(buffer, sizeof(buffer), 10)) {
                if (HasLine(buffer, count)) {
                    break;
                }
            }
            socket.SendAll("served", 6);
        } catch (const SocketException& e) {
            timeouts += e.GetError() == SocketException::SocketTimeout ? 1 : 0;
        }
    });
    TcpServer server("127.0.0.1", 0);
    server.HoldConnections(&HasLine, 500);
    server.Start(&acceptor, 1000);
    std::vector<std::unique_ptr<TcpSocket>> dribbling;
    for (int i = 0; i < 20; ++i) {
        dribbling.push_back(std::make_unique<TcpSocket>());
        dribbling.back()->Connect("127.0.0.1", server.GetLocalPort(), 10);
        dribbling.back()->SendAll("half a li", 9);
    }
    TcpSocket client;
    client.Connect("127.0.0.1", server.GetLocalPort(), 10);
    client.SendAll("line\n", 5);
    EXPECT_EQ(ReceiveAll(client), "served");
    EXPECT_EQ(timeouts, 0);
    dribbling[0]->SendAll("ne\n", 3);
    EXPECT_EQ(ReceiveAll(*dribbling[0]), "served");
    EXPECT_TRUE(WaitUntil([&] { return timeouts == 19; }));
    dribbling.clear();
}

TEST(TcpServer, HeldConnectionsLeaveDescriptorsToOthers) {
    Semaphore entered("entered", 1, 0);
    Semaphore leave("leave", 1, 1);
    Acceptor acceptor([&](TcpSocket& socket) {
        entered.Release();
        leave.Lock();
        Echo(socket);
    });
    TcpServer server("127.0.0.1", 0);
    server.HoldConnections(&HasLine, 10'000);
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit few = {80, limit.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &few);
    server.Start(&acceptor, 100);
    ::setrlimit(RLIMIT_NOFILE, &limit);
    std::vector<std::unique_ptr<TcpSocket>> clients;
    const auto connect = [&](int count) {
        for (int i = 0; i < count; ++i) {
            clients.push_back(ConnectTo(server));
            clients.back()->SendAll("half", 4);
        }
    };
    const auto end = [](TcpSocket& client) {
        client.SendAll("line\n", 5);
        client.ShutdownSend();
    };
    connect(41);
    EXPECT_EQ(ReceiveAll(*clients[0]), "");  // the oldest has made room
    end(*clients[1]);
    EXPECT_EQ(ReceiveAll(*clients[1]), "halfline\n");
    entered.Lock();

    // While the server is busy, more come than it holds, and then the oldest, which makes room, sends more.
    end(*clients[3]);
    entered.Lock();
    connect(3);
    clients[2]->SendAll("more", 4);
    leave.Release();
    EXPECT_EQ(ReceiveAll(*clients[3]), "halfline\n");
    leave.Release();
    end(*clients.back());
    EXPECT_EQ(ReceiveAll(*clients.back()), "halfline\n");
}

TEST(TcpSocketStream, ReadsAndWritesLinesAndKeepsTheByte255) {
    Acceptor acceptor([](TcpSocket& socket) {
        TcpSocketStream stream(&socket);
        string line;
        while (std::getline(stream, line)) {
            stream << line << string(1000, '.') << '\n' << std::flush;
        }
    });
    TcpServer server("127.0.0.1", 0);
    server.Start(&acceptor, 1);
    TcpSocket client;
    client.Connect("127.0.0.1", server.GetLocalPort(), 10);
    TcpSocketStream stream(&client, 10, 16);
    const string binary = "\xff\xfe" + string(700, '\xff');
    stream << binary << '\n' << std::flush;
    string line;
    ASSERT_TRUE(std::getline(stream, line));
    EXPECT_EQ(line, binary + string(1000, '.'));
    client.ShutdownSend();
    EXPECT_EQ(stream.get(), std::char_traits<char>::eof());
    EXPECT_TRUE(stream.eof());
}

TEST(TcpSocketStream, FailuresAreExceptionsOfTheBuffer) {
    class Exposed : public TcpSocketStreamBuf {
    public:
        using TcpSocketStreamBuf::overflow;
        using TcpSocketStreamBuf::sync;
        using TcpSocketStreamBuf::TcpSocketStreamBuf;
        using TcpSocketStreamBuf::underflow;
    };
    const auto ioError = [](auto action) {
        try {
            action();
        } catch (const IOException& e) {
            return e.ToString();
        }
        return string("none");
    };
    Exposed none(nullptr);
    EXPECT_EQ(ioError([&] { none.underflow(); }), "Socket has not been created");
    EXPECT_EQ(ioError([&] { none.sync(); }), "Socket has not been created");
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    TcpSocket socket(static_cast<unsigned int>(ends[0]), 0, nullptr);
    none.Open(&socket);
    EXPECT_EQ(ioError([&] { none.Open(&socket); }), "Socket already open");
    Exposed quick(&socket, 0);
    EXPECT_EQ(OutcomeOf([&] { quick.underflow(); }), kTimeout);
    ::close(ends[1]);
    quick.sputc('x');
    EXPECT_EQ(ioError([&] { quick.sync(); }), "send failed: errno(32): Broken pipe");
    EXPECT_EQ(quick.sputc('y'), 'y');
}

}  // namespace
}  // namespace zarip::osa
