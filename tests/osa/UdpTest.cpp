// SPDX-License-Identifier: MIT

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <future>
#include <random>
#include <thread>

#include "support/LogCapture.h"
#include "support/OwnNetwork.h"
#include "support/ShortMemory.h"
#include "support/WaitUntil.h"
#include "zarip/core/Delegate.h"
#include "zarip/osa/IUdpBufferAccept.h"
#include "zarip/osa/MulticastServer.h"
#include "zarip/osa/Mutex.h"
#include "zarip/osa/MutexAutoLock.h"
#include "zarip/osa/Semaphore.h"
#include "zarip/osa/SocketException.h"
#include "zarip/osa/UdpSocket.h"

namespace zarip::osa {
namespace {

using std::string;
using test::LogCapture;
using test::WaitUntil;
using Texts = std::vector<string>;

constexpr const char* kGroup = "239.255.77.1";
constexpr const char* kOtherGroup = "239.255.77.2";

/// The text of the exception, and the code of one of a socket.
template <class Action>
string FailureOf(Action action) {
    try {
        action();
    } catch (const SocketException& e) {
        return e.ToString() + " / " + std::to_string(e.GetError());
    } catch (const Exception& e) {
        return e.ToString();
    }
    return "";
}

void Send(const UdpSocket& from, const string& text, const char* host, unsigned short port) {
    from.SendTo(reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned int>(text.size()),
                host, port);
}

void Send(const string& text, unsigned short port, const char* host = "127.0.0.1") {
    Send(UdpSocket("0.0.0.0", 0, 0), text, host, port);
}

/// To a group, without leaving the machine.
bool SendToGroup(const string& text, const char* group, unsigned short port) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int hops = 0;
    ::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &hops, sizeof(hops));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    ::inet_pton(AF_INET, group, &to.sin_addr);
    const ssize_t sent =
        ::sendto(fd, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
    ::close(fd);
    return sent == static_cast<ssize_t>(text.size());
}

string Receive(const UdpSocket& socket, UdpSocket::Info& info, unsigned int timeoutSeconds = 10) {
    unsigned char buffer[100];
    const unsigned int length = socket.RecvFrom(buffer, sizeof(buffer), info, timeoutSeconds);
    return string(reinterpret_cast<const char*>(buffer), length);
}

string Receive(const UdpSocket& socket) {
    UdpSocket::Info info{};
    return Receive(socket, info);
}

/// Keeps what arrives, after a function has seen it.
class Receiver : public IUdpBufferAccept {
public:
    using Function = std::function<void(const string&)>;
    explicit Receiver(Function function = [](const string&) {}) : _function(std::move(function)) {}
    void AcceptBuffer(const unsigned char* buffer, unsigned int length, const UdpSocket::Info&) override {
        const string text(reinterpret_cast<const char*>(buffer), length);
        _function(text);
        const MutexAutoLock lock(&_mutex);
        _texts.push_back(text);
    }
    Texts Get() const {
        const MutexAutoLock lock(&_mutex);
        return _texts;
    }
    bool WaitFor(const string& text) const {
        return WaitUntil([&] {
            const Texts texts = Get();
            return std::find(texts.begin(), texts.end(), text) != texts.end();
        });
    }

private:
    Function _function;
    mutable Mutex _mutex{"Receiver"};
    Texts _texts;
};

TEST(UdpSocketTest, TellsWhereADatagramComesFromAndWhereItArrived) {
    const UdpSocket receiver("0.0.0.0", 0, 0);
    const UdpSocket sender("127.0.0.2", 0, 0);
    const unsigned short port = receiver.GetLocalPort();
    ASSERT_NE(port, 0);
    for (const char* host : {"127.0.0.1", "127.0.0.3"}) {
        UdpSocket::Info info{};
        Send(sender, host, host, port);
        EXPECT_EQ(Receive(receiver, info), host);
        EXPECT_EQ(string(info.localIpv4), host);
        EXPECT_EQ(string(info.remoteIpv4), "127.0.0.2");
        EXPECT_EQ(string(info.localIpv6) + info.remoteIpv6, "");
        EXPECT_EQ(info.localPort, port);
        EXPECT_EQ(info.remotePort, sender.GetLocalPort());
    }
    Send(sender, "", "127.0.0.1", port);
    EXPECT_EQ(Receive(receiver), "");
    Send(sender, string(150, 'x'), "127.0.0.1", port);
    EXPECT_EQ(Receive(receiver), string(100, 'x'));
}

TEST(UdpSocketTest, OneIpv6SocketReceivesBothFamilies) {
    const UdpSocket receiver("::", 0, 0);
    Send("four", receiver.GetLocalPort());
    UdpSocket::Info info{};
    EXPECT_EQ(Receive(receiver, info), "four");
    EXPECT_EQ(string(info.localIpv4), "127.0.0.1");
    try {
        Send(UdpSocket("::1", 0, 0), "six", "::1", receiver.GetLocalPort());
    } catch (const SocketException& e) {
        GTEST_SKIP() << "no IPv6 here, so \"::\" is \"0.0.0.0\": " << e.what();
    }
    EXPECT_EQ(Receive(receiver, info), "six");
    EXPECT_EQ(string(info.localIpv6), "::1");
    EXPECT_EQ(string(info.remoteIpv6), "::1");
    EXPECT_EQ(string(info.localIpv4) + info.remoteIpv4, "");
    EXPECT_EQ(FailureOf([&] { receiver.AddMembership("::1"); }),
              "UdpSocket::AddMembership(::1): IPV6_ADD_MEMBERSHIP failed with errno: 22 / 3");
}

TEST(UdpSocketTest, FailuresHaveTheirTextsAndCodes) {
    UdpSocket socket("127.0.0.1", 0, 0);
    const unsigned short port = socket.GetLocalPort();
    unsigned char byte = 7;
    UdpSocket::Info info{};
    info.remotePort = 7;
    const auto receive = [&](unsigned int seconds) {
        return FailureOf([&] { socket.RecvFrom(&byte, 1, info, seconds); });
    };
    const auto make = [](const char* address, unsigned short itsPort) {
        return FailureOf([&] { UdpSocket(address, itsPort, 0); });
    };
    const auto send = [&](const string& text, const char* host) {
        return FailureOf([&] { Send(socket, text, host, port); });
    };
    EXPECT_EQ(receive(0), "Timeout / 0");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(receive(1), "Timeout / 0");
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(990));
    EXPECT_EQ(byte + info.remotePort, 14);
    EXPECT_EQ(make("nonsense", 0), "Invalid Address / 1");
    EXPECT_EQ(make(nullptr, 0), "Invalid Address / 1");
    EXPECT_EQ(make("198.51.100.77", 0), "Unable to bind socket / 1");
    EXPECT_EQ(make("127.0.0.1", port), "Unable to bind socket / 1");
    EXPECT_EQ(send("", "localhost"), "Invalid Address / 3");
    EXPECT_EQ(send("", "::1"), "Invalid Socket / 3");
    EXPECT_EQ(send(string(70'000, 'x'), "127.0.0.1"), "Socket Error / 3");
    socket.CancelRecv();
    EXPECT_EQ(receive(0), "Socket was closed / 3");
    EXPECT_EQ(receive(kWaitForEver), "Socket was closed / 3");
    socket.Close();
    socket.Close();
    EXPECT_EQ(receive(0), "Invalid Socket / 3");
    EXPECT_EQ(send("", "127.0.0.1"), "Invalid Socket / 3");
    EXPECT_EQ(FailureOf([&] { socket.AddMembership(kGroup); }), "Invalid Socket / 3");
}

TEST(UdpSocketTest, MembershipFailuresNameTheGroup) {
    const UdpSocket socket("0.0.0.0", 0, 1);
    const struct {
        const char* group;
        bool add;
        const char* source;
        const char* failure;
    } cases[] = {
        {"x", true, nullptr, "AddMembership(x): invalid address"},
        {kGroup, false, "x", "DropSourceMembership(239.255.77.1): invalid address"},
        {"ff02::c", true, nullptr, "AddMembership(ff02::c): IPv6 address on IPv4 socket"},
        {"ff02::c", true, "127.0.0.1",
         "AddSourceMembership(ff02::c): IPv6 does not support source-specific multicast"},
        {"127.0.0.1", true, nullptr, "AddMembership(127.0.0.1): IP_ADD_MEMBERSHIP failed with errno: 22"},
        {"127.0.0.1", false, "127.0.0.1",
         "DropSourceMembership(127.0.0.1): IP_DROP_SOURCE_MEMBERSHIP failed with errno: 22"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(FailureOf([&] { socket.AddDropMembership(c.group, c.add, c.source); }),
                  string("UdpSocket::") + c.failure + " / 3");
    }
}

TEST(UdpSocketTest, OnlyDatagramsOfJoinedGroupsAndSourcesArrive) {
    const UdpSocket first("0.0.0.0", 0, 1);
    const unsigned short port = first.GetLocalPort();
    const UdpSocket second("0.0.0.0", port, 1);
    try {
        first.AddMembership(kGroup);
    } catch (const SocketException& e) {
        GTEST_SKIP() << "no interface for multicast: " << e.what();
    }
    second.AddMembership(kOtherGroup);
    ASSERT_TRUE(SendToGroup("one", kGroup, port) && SendToGroup("other", kOtherGroup, port));
    UdpSocket::Info info{};
    EXPECT_EQ(Receive(first, info), "one");
    EXPECT_EQ(string(info.localIpv4), kGroup);
    EXPECT_EQ(Receive(second), "other");

    first.DropMembership(kGroup);
    first.AddSourceMembership(kGroup, "198.51.100.77");
    ASSERT_TRUE(SendToGroup("from elsewhere", kGroup, port));
    first.AddSourceMembership(kGroup, info.remoteIpv4);
    ASSERT_TRUE(SendToGroup("from here", kGroup, port));
    EXPECT_EQ(Receive(first), "from here");
    first.DropSourceMembership(kGroup, info.remoteIpv4);
}

TEST(UdpSocketTest, DamagedDatagramsAndSignalsDoNotEndAWait) {
    UdpSocket socket("127.0.0.1", 0, 0);
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGUSR2, &action, &before), 0);
    std::promise<pthread_t> thread;
    auto received = std::async(std::launch::async, [&] {
        thread.set_value(::pthread_self());
        return Receive(socket);
    });
    const pthread_t waiting = thread.get_future().get();
    const unsigned short port = socket.GetLocalPort();
    const unsigned char damaged[] = {0,
                                     1,
                                     static_cast<unsigned char>(port >> 8),
                                     static_cast<unsigned char>(port),
                                     0,
                                     12,
                                     0,
                                     1,
                                     't',
                                     'e',
                                     'x',
                                     't'};
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // Without the right to send raw packets the signals alone are tried.
    const int raw = ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_UDP);
    for (int i = 0; i < 50; ++i) {
        ::pthread_kill(waiting, SIGUSR2);
        ::sendto(raw, damaged, sizeof(damaged), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
    }
    ::close(raw);
    Send("whole", port);
    EXPECT_EQ(received.get(), "whole");
    ::sigaction(SIGUSR2, &before, nullptr);
}

TEST(UdpServerTest, MisuseThrows) {
    LogCapture log;
    Receiver receiver;
    UdpServer server("198.51.100.77", 0, 100, 0);
    MulticastServer multicast("127.0.0.1", 0, 100, 0);
    EXPECT_EQ(FailureOf([&] { server.Start(nullptr); }), "UdpServer::Start(): pCallback was NULL");
    EXPECT_EQ(FailureOf([&] { server.Run(); }), "UdpServer::Run(): Server has not been started");
    EXPECT_EQ(FailureOf([&] { server.Stop(); }), "UdpServer::Stop server has not been started");
    EXPECT_EQ(FailureOf([&] { multicast.Start(nullptr); }), "MulticastServer::Start(): pCallback was NULL");
    multicast.Stop();
    EXPECT_EQ(log.Messages(), Texts());
    EXPECT_EQ(FailureOf([&] { server.Start(&receiver); }), "Unable to bind socket / 1");
    EXPECT_FALSE(server.IsRunning());
}

TEST(UdpServerTest, StopsWhereverItIsBoundAndStartsAgain) {
    Receiver receiver;
    for (const char* address : {"127.0.0.1", "127.0.0.2", "::"}) {
        UdpServer server(address, 0, 100, 0);
        for (int i = 0; i < 50; ++i) {
            server.Start(&receiver);
            server.Start(&receiver);
            EXPECT_TRUE(server.IsRunning());
            server.Stop();
            EXPECT_FALSE(server.IsRunning());
        }
        server.Start(&receiver);
        const string text = string("again ") + address;
        Send(text, server.GetLocalPort(), address[0] == ':' ? "127.0.0.1" : address);
        EXPECT_TRUE(receiver.WaitFor(text));
    }
}

/// Puts something that is no socket in the place of every datagram socket of the process.
void LoseSockets() {
    const int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (int fd = 3; fd < 5'000; ++fd) {
        int protocol = 0;
        socklen_t size = sizeof(protocol);
        if (::getsockopt(fd, SOL_SOCKET, SO_PROTOCOL, &protocol, &size) == 0 && protocol == IPPROTO_UDP) {
            EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
            ::dup3(null, fd, O_CLOEXEC);
        }
    }
    ::close(null);
}

TEST(UdpServerTest, ACallbackMayThrowAndStopItAndALostDescriptorEndsNothingElse) {
    LogCapture log;
    UdpServer* running = nullptr;
    Receiver receiver([&](const string& text) {
        if (text == "exception") {
            throw Exception("deliberate");
        }
        if (text == "number") {
            throw 5;
        }
        text == "stop" ? running->Stop() : LoseSockets();
    });
    UdpServer server("127.0.0.1", 0, 100, 0);
    running = &server;
    for (const char* last : {"stop", "lose it"}) {
        server.Start(&receiver);
        for (const char* text : {"exception", "number", last}) {
            Send(text, server.GetLocalPort());
        }
        EXPECT_TRUE(WaitUntil([&] { return !server.IsRunning(); }));
        server.Stop();
    }
    EXPECT_EQ(log.Count("deliberate"), 2);
    EXPECT_EQ(receiver.Get(), (Texts{"stop", "lose it"}));
}

// The callback fails for lack of memory, and the code that handles the exception has no memory either.
TEST(UdpServerTest, ServesOnWhenMemoryWasShort) {
    if (!test::ShortMemory::IsSupported()) {
        GTEST_SKIP() << "the sanitizer has an allocator of its own";
    }
    core::Logger::Shutdown();  // so that no logger is there before it is asked for
    Receiver receiver;
    UdpServer server("127.0.0.1", 0, 100, 0);
    server.Start(&receiver);
    {
        const test::ShortMemory shortage("UdpSocketThread");
        EXPECT_TRUE(WaitUntil([&] {
            Send("lost", server.GetLocalPort());
            return test::ShortMemory::GetFailures() > 2;
        }));
    }
    Send("end", server.GetLocalPort());
    EXPECT_TRUE(receiver.WaitFor("end"));
}

TEST(UdpServerTest, StoppingOneOfTwoOnAPortIsNoDatagramForTheOther) {
    Receiver receiver;
    UdpServer first("127.0.0.1", 0, 100, 0);
    first.Start(&receiver);
    UdpServer second("127.0.0.1", first.GetLocalPort(), 100, 0);
    second.Start(&receiver);
    const unsigned short port = second.GetLocalPort();
    first.Stop();
    Send("end", port);
    EXPECT_TRUE(receiver.WaitFor("end"));
    EXPECT_EQ(receiver.Get(), Texts{"end"});
}

TEST(UdpServerTest, ACallbackMayEndItsThread) {
    Receiver receiver([](const string&) { ::pthread_exit(nullptr); });
    UdpServer server("127.0.0.1", 0, 100, 0);
    MulticastServer multicast("127.0.0.1", 0, 100, 0);
    for (UdpServer* const each : {&server, static_cast<UdpServer*>(&multicast)}) {
        each->Start(&receiver);
        EXPECT_TRUE(WaitUntil([&] { return each->IsRunning(); }));
        Send("end", each->GetLocalPort());
        EXPECT_TRUE(WaitUntil([&] { return !each->IsRunning(); }));
        each->Stop();
    }
}

TEST(UdpServerTest, DeliversTheNewestOfABurst) {
    Semaphore held("held", 1, 0);
    Semaphore queued("queued", 1, 0);
    Receiver receiver([&](const string& text) {
        if (text == "hold") {
            held.Release();
            queued.Lock();
        }
    });
    UdpServer server("127.0.0.1", 0, 100, UdpServer::kNewestOnly);
    server.Start(&receiver);
    Send("hold", server.GetLocalPort());
    held.Lock();
    for (const char* text : {"one", "two", "three"}) {
        Send(text, server.GetLocalPort());
    }
    queued.Release();
    EXPECT_TRUE(receiver.WaitFor("three"));
    Send("four", server.GetLocalPort());
    EXPECT_TRUE(receiver.WaitFor("four"));
    EXPECT_EQ(receiver.Get(), (Texts{"hold", "three", "four"}));
}

TEST(UdpServerTest, ServesOnThroughAFloodOfRandomBytes) {
    std::mt19937 random(4);
    for (const unsigned int options : {0U, UdpServer::kNewestOnly}) {
        std::atomic<bool> isServed{false};
        Receiver receiver([&](const string& text) {
            isServed = isServed || text == "still there?";
            throw Exception("%s", text.c_str());
        });
        UdpServer server("127.0.0.1", 0, 512, options);
        server.Start(&receiver);
        const UdpSocket sender("0.0.0.0", 0, 0);
        string bytes(1'000, '\0');
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
        for (int i = 0; i < 50'000; ++i) {
            bytes[random() % bytes.size()] = static_cast<char>(random());
            Send(sender, bytes.substr(random() % bytes.size()), "127.0.0.1", server.GetLocalPort());
        }
        EXPECT_TRUE(WaitUntil([&] {
            Send(sender, "still there?", "127.0.0.1", server.GetLocalPort());
            return isServed.load();
        }));
    }
}

TEST(UdpServerTest, GroupsAreJoinedAndLeftWhileItRuns) {
    Receiver receiver;
    UdpServer server("0.0.0.0", 0, 100, 0);
    server.AddMembership(kGroup);
    server.AddMembership(kGroup);
    try {
        server.Start(&receiver);
    } catch (const SocketException& e) {
        GTEST_SKIP() << "no interface for multicast: " << e.what();
    }
    server.AddMembership(kGroup);
    server.AddMembership(kOtherGroup);
    SendToGroup("group", kGroup, server.GetLocalPort());
    SendToGroup("other group", kOtherGroup, server.GetLocalPort());
    EXPECT_TRUE(receiver.WaitFor("other group"));
    server.DropMembership(kGroup);
    SendToGroup("nobody's", kGroup, server.GetLocalPort());
    Send("end", server.GetLocalPort());
    EXPECT_TRUE(receiver.WaitFor("end"));
    EXPECT_EQ(receiver.Get(), (Texts{"group", "other group", "end"}));
    EXPECT_THROW(server.AddMembership("127.0.0.1"), SocketException);
    server.Stop();
    server.Start(&receiver);  // the group that could not be joined was not kept
    EXPECT_TRUE(server.IsRunning());
}

struct Counter {
    void Count() {
        ++count;
        if (throws) {
            throw Exception("counted");
        }
    }
    std::atomic<int> count{0};
    bool throws = false;
};

TEST(MulticastServerTest, TriesUntilThePortIsFree) {
    LogCapture log;
    auto blocker = std::make_unique<UdpSocket>("127.0.0.1", static_cast<unsigned short>(0), 0);
    const unsigned short port = blocker->GetLocalPort();
    Counter started;
    Counter removed;
    Receiver receiver([](const string& text) {
        if (text == "throw") {
            throw Exception("deliberate");
        }
    });
    MulticastServer server("127.0.0.1", port, 100, 0, 1'000'000, TimeSpan::FromMilliseconds(1));
    server.AddOnStartDelegate(core::MakeDelegate(&started, &Counter::Count));
    server.AddOnStartDelegate(core::MakeDelegate(&removed, &Counter::Count));
    server.RemoveOnStartDelegate(&removed);
    server.Start(&receiver);
    const string failure = "Failed to start MulticastServer, reason: ";
    EXPECT_TRUE(WaitUntil([&] { return log.Count(failure + "Unable to bind socket") >= 3; }));
    EXPECT_FALSE(server.IsRunning());
    blocker.reset();
    EXPECT_TRUE(WaitUntil([&] { return server.IsRunning(); }));
    Send("throw", port);  // ends this attempt, and is followed by the next
    EXPECT_TRUE(WaitUntil([&] { return started.count == 2 && server.IsRunning(); }));
    EXPECT_TRUE(log.Contains(failure + "deliberate"));
    Send("hello", port);
    EXPECT_TRUE(receiver.WaitFor("hello"));
    server.Stop();
    server.Stop();
    EXPECT_EQ(log.Count("Thread should have been stoped by now!"), 1);
    EXPECT_EQ(removed.count, 0);
}

TEST(MulticastServerTest, GivesUpAfterAsManyAttemptsWithShorterPausesFirst) {
    for (const int earlyMs : {100, 0}) {
        LogCapture log;
        Counter started;
        Counter failed;
        Receiver receiver;
        MulticastServer server("127.0.0.1", 0, 100, 0, 4, TimeSpan::FromMilliseconds(earlyMs),
                               TimeSpan::FromMilliseconds(100 - earlyMs));
        started.throws = failed.throws = true;
        server.AddOnStartDelegate(core::MakeDelegate(&started, &Counter::Count));
        server.AddOnErrorDelegate(core::MakeDelegate(&failed, &Counter::Count));
        const auto begin = std::chrono::steady_clock::now();
        server.Start(&receiver);
        EXPECT_TRUE(WaitUntil([&] { return failed.count == 1; }));
        EXPECT_GE(std::chrono::steady_clock::now() - begin,
                  std::chrono::milliseconds(earlyMs != 0 ? 200 : 100));
        server.Stop();
        EXPECT_EQ(started.count, 4);
        EXPECT_EQ(log.Count("Failed to start MulticastServer, reason: counted"), 4);
        EXPECT_EQ(failed.count, 1);
    }
}

TEST(MulticastServerTest, StopsInEveryState) {
    Receiver receiver;
    Counter failed;
    for (int i = 0; i < 200; ++i) {
        // One that cannot start and soon waits to try again; one that starts.
        MulticastServer hopeless("198.51.100.77", 0, 100, 0, 4, TimeSpan::FromHours(1));
        MulticastServer server("127.0.0.2", 0, 100, 0);
        hopeless.AddOnErrorDelegate(core::MakeDelegate(&failed, &Counter::Count));
        for (MulticastServer* each : {&hopeless, &server}) {
            each->Start(&receiver);
            if (i % 2 == 0) {
                std::this_thread::yield();
            }
            each->Stop();
            EXPECT_FALSE(each->IsRunning());
        }
        server.Start(&receiver);
        EXPECT_TRUE(WaitUntil([&] { return server.IsRunning(); }));
    }
    EXPECT_EQ(failed.count, 0);
}

TEST(MulticastServerTest, WaitsForAnInterfaceThatAppearsLate) {
    // In a network of its own, which the server's thread inherits from this one.
    string skipped;
    std::thread([&] {
        if (!test::EnterOwnNetwork(skipped)) {
            return;
        }
        skipped.clear();
        LogCapture log;
        Receiver receiver;
        MulticastServer server("0.0.0.0", 0, 100, 0, 1'000'000, TimeSpan::FromMilliseconds(1));
        server.AddMembership(kGroup);
        server.Start(&receiver);
        EXPECT_TRUE(WaitUntil([&] {
            return log.Contains(
                "reason: UdpSocket::AddMembership(239.255.77.1): IP_ADD_MEMBERSHIP failed "
                "with errno: 19");
        }));
        EXPECT_TRUE(test::OpenLoopback());
        EXPECT_TRUE(WaitUntil([&] { return server.IsRunning(); }));
        EXPECT_TRUE(SendToGroup("late", kGroup, server.GetLocalPort()));
        EXPECT_TRUE(receiver.WaitFor("late"));
        server.Stop();
    }).join();
    if (!skipped.empty()) {
        GTEST_SKIP() << "no network of its own: " << skipped;
    }
}

}  // namespace
}  // namespace zarip::osa
