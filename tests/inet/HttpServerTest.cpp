// SPDX-License-Identifier: MIT

#include "zarip/inet/HttpServer.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <vector>

#include "support/LogCapture.h"
#include "support/ShortMemory.h"
#include "support/WaitUntil.h"
#include "zarip/inet/HttpDispatcher.h"
#include "zarip/inet/HttpRequest.h"
#include "zarip/inet/HttpResponse.h"
#include "zarip/inet/IHttpConnection.h"
#include "zarip/inet/IHttpStreamHandler.h"
#include "zarip/osa/Exception.h"
#include "zarip/osa/Semaphore.h"
#include "zarip/osa/SocketException.h"
#include "zarip/osa/TcpSocket.h"

namespace zarip::inet {
namespace {

using std::string;
using test::WaitUntil;
using Socket = std::unique_ptr<osa::TcpSocket>;

class Handler : public IHttpHandler {
public:
    using Function = std::function<void(const HttpRequest&, HttpResponse&)>;
    explicit Handler(Function function) : _function(std::move(function)) {}
    void HandleRequest(const HttpRequest& request, HttpResponse& response) override {
        ++_calls;
        _function(request, response);
    }
    std::atomic<int> _calls{0};

private:
    Function _function;
};

class StreamHandler : public IHttpStreamHandler {
public:
    using Function = std::function<void(const HttpRequest&, HttpResponse&, IHttpConnection&)>;
    explicit StreamHandler(Function function) : _function(std::move(function)) {}
    void HandleHead(const HttpRequest& head, HttpResponse& response, IHttpConnection& connection) override {
        _function(head, response, connection);
    }

private:
    Function _function;
};

/// Returns the resident size of this process in KiB.
long ResidentKiB() {
    std::ifstream status("/proc/self/status");
    for (string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::stol(line.substr(6));
        }
    }
    return 0;
}

void Send(osa::TcpSocket& socket, const string& text) {
    socket.SendAll(text.data(), static_cast<unsigned int>(text.size()));
}

string Receive(osa::TcpSocket& socket, std::size_t most = string::npos) {
    string answer;
    char buffer[65'536];
    while (answer.size() < most) {
        const std::size_t part = std::min(sizeof(buffer), most - answer.size());
        const unsigned int count = socket.Recv(buffer, static_cast<unsigned int>(part), 20);
        if (count == 0) {
            break;
        }
        answer.append(buffer, count);
    }
    return answer;
}

/// Returns whether the server has answered or closed the connection.
bool HasHeard(const osa::TcpSocket& socket) {
    pollfd descriptor = {socket.getHandle(), POLLIN, 0};
    return ::poll(&descriptor, 1, 0) > 0;
}

/// Waits for the end of the connection and returns the answer, or "reset".
string Fate(osa::TcpSocket& socket) {
    try {
        return Receive(socket);
    } catch (const osa::SocketException&) {
        return "reset";
    }
}

class HttpServerTest : public testing::Test {
protected:
    HttpServerTest()
        : _echo([](const HttpRequest& request, HttpResponse& response) {
              response.SetCode(200);
              response.SetHeader("Content-Type", "text/plain");
              response.SetBody(request.GetBody(), request.GetBodyLength());
          }),
          _large([](const HttpRequest&, HttpResponse& response) {
              response.SetCode(200);
              for (int i = 0; i < 1'000; ++i) {  // more than the kernel takes at once
                  response.SetHeader(std::to_string(i), string(4'000, 'h'));
              }
              response.SetBody(string(1024 * 1024, 'x'));
          }) {
        _server->AddHandler("/echo", &_echo);
        _server->AddHandler("/large", &_large);
    }

    Socket Connect(unsigned int bufferSize = 0) {
        auto socket = std::make_unique<osa::TcpSocket>();
        if (bufferSize != 0) {
            socket->SetBufferSize(bufferSize);
        }
        socket->Connect("127.0.0.1", _server->GetLocalPort(), 10);
        return socket;
    }

    Socket SendTo(const string& text, unsigned int bufferSize = 0) {
        Socket socket = Connect(bufferSize);
        Send(*socket, text);
        return socket;
    }

    string Ask(const string& request) { return Receive(*SendTo(request)); }

    Handler _echo;
    Handler _large;
    std::unique_ptr<HttpServer> _server = std::make_unique<HttpServer>("127.0.0.1", 65536);
};

const string kEmpty400 = "HTTP/1.1 400 Bad Request\r\n\r\n";
const string kGetLarge = "GET /large HTTP/1.1\r\n\r\n";

string Post(std::size_t announced, const string& body, const string& headers = "") {
    return "POST /echo HTTP/1.1\r\nContent-Length: " + std::to_string(announced) + "\r\n" + headers + "\r\n" +
           body;
}

string Echoed(const string& body) {
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nContent-Type: text/plain\r\n\r\n" + body;
}

TEST_F(HttpServerTest, AnswersOneRequestForEachConnection) {
    _server->StartServerThread();
    _server->StartServerThread();
    EXPECT_EQ(Ask(Post(5, "hello")), Echoed("hello"));
    EXPECT_EQ(Ask(Post(0, "") + Post(6, "unseen")), Echoed(""));
    EXPECT_EQ(Ask("GET /nowhere HTTP/1.1\r\n\r\n"),
              "HTTP/1.1 404 Not Found\r\nContent-Length: 9\r\nContent-Type: text/html; "
              "charset=UTF-8\r\n\r\nNot Found");
    const string tooMuch = Post(1, "", "A: b\r\nLong: " + string(10'000, 'x') + "\r\n");
    for (const string& bad : {string("GET / HTTP/1.1 extra\r\n\r\n"), tooMuch,
                              "GET /" + string(5000, 'x') + " HTTP/1.1\r\n\r\n"}) {
        EXPECT_EQ(Ask(bad), kEmpty400);
    }
    // A header in three pieces and a body in two. Then clients that end early, which is not an error.
    const Socket slow = SendTo("POST /echo HT");
    Send(*slow, "TP/1.1\r\nContent-Length: 6\r\n");
    Send(*slow, "\r\nabc");
    Send(*slow, "def");
    EXPECT_EQ(Receive(*slow), Echoed("abcdef"));
    for (const char* early : {"GET /echo HTTP/1.1", "POST /echo HTTP/1.1\r\nContent-Length: 9\r\n\r\n"}) {
        const Socket socket = SendTo(early);
        socket->ShutdownSend();
        EXPECT_EQ(Receive(*socket), Echoed(""));
    }
    EXPECT_EQ(_echo._calls, 5);
    _server->StopServerThread();
    _server->StopServerThread();
    EXPECT_THROW(Connect(), osa::SocketException);
    EXPECT_THROW(_server->StartServerThread(), osa::SocketException);
}

TEST_F(HttpServerTest, AnswersTheSameInWhateverPiecesARequestComes) {
    const string requests[] = {
        Post(5, "hello"),
        Post(3, "hello"),
        Post(9, "cut"),
        "POST /echo HTTP/1.1\nContent-Length: 2\nContent-Length: 4\n\nlast",
        "GET /echo HTTP/1.1",
        "GET /echo HTTP/1.1\r\nNo line end",
        "GET /echo HTTP/1.1\r\r\n\r\n",
        "GET /echo HTTP/1.1\r\nA: b\r\n\r",
        "GET /echo\r\n\r\n",
        "\r\nGET /echo HTTP/1.1\r\n\r\n",
        "PUT /echo HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
        "GET /echo HTTP/1.1\r\nContent-Length : 3\r\n\r\nabc",
        string("GET /echo HTTP/1.1\r\nA\0: b\r\n\r\n", 30),
        "GET /echo HTTP/1.1\r\nA: b\r\n" + string("\0\r\n\r\n", 5),
        "GET /echo HTTP/1.1" + string(5'000, ' ') + "\r\nA: b\r\n\r\n",
    };
    HttpDispatcher dispatcher;
    dispatcher.AddHandler("/echo", &_echo);
    _server->StartServerThread();
    for (const string& request : requests) {
        std::stringstream whole(request);
        std::ostringstream expected;
        dispatcher.HandleRequest(whole, expected);
        for (std::size_t cut = 0; cut <= request.size(); cut += 1 + cut / 100) {
            const Socket socket = SendTo(request.substr(0, cut));
            Ask("GET / HTTP/1.1\r\n\r\n");  // by now the server has read that
            try {
                Send(*socket, request.substr(cut));
                socket->ShutdownSend();
            } catch (const osa::SocketException&) {
                // The request was answered already.
            }
            EXPECT_EQ(Receive(*socket), expected.str()) << request.substr(0, 60) << " cut at " << cut;
        }
    }
}

TEST_F(HttpServerTest, TakesABodyOfOneMebibyteAndRefusesALargerOneSoThatTheClientReadsIt) {
    _server->StartServerThread();
    const string body(1024 * 1024, '\xff');
    EXPECT_TRUE(Ask(Post(body.size(), body)) == Echoed(body));
    // The client only reads the answer after it has sent everything.
    EXPECT_EQ(Ask(Post(body.size() + 1, body + "x")), kEmpty400);
    EXPECT_EQ(Ask(Post(8 * body.size(), string(8 * body.size(), 'x'))), kEmpty400);
    EXPECT_EQ(_echo._calls, 1);
}

TEST_F(HttpServerTest, TheWorstRequestsCostLittleMemory) {
    _server->StartServerThread();
    Ask(Post(2, "hi"));
    const long before = ResidentKiB();
    EXPECT_EQ(Ask("GET / HTTP/1.1\r\nContent-Length: 18446744073709551615\r\n\r\n"), kEmpty400);
    string headers;
    for (int i = 0; i < 2000; ++i) {
        headers += "X" + std::to_string(i) + ": " + string(1000, 'v') + "\r\n";
    }
    EXPECT_EQ(Ask("GET /echo HTTP/1.1\r\n" + headers + "\r\n"), kEmpty400);
    EXPECT_LT(ResidentKiB() - before, 32 * 1024);
    EXPECT_EQ(Ask(Post(5, "alive")), Echoed("alive"));
}

TEST_F(HttpServerTest, NoClientDelaysAnother) {
    _server->StartServerThread();
    const string dribbled = "GET /echo HTTP/1.1\r\nA: b";
    std::vector<Socket> hostile;
    for (int i = 0; i < 20; ++i) {
        hostile.push_back(Connect());
        hostile.push_back(SendTo(dribbled));
        hostile.push_back(SendTo(Post(100'000, "")));
        Ask(Post(2, "hi"));  // by now the server has accepted them
    }
    for (int i = 0; i < 3; ++i) {
        hostile.push_back(SendTo(kGetLarge, 4'096));
    }
    for (int round = 0; round < 10; ++round) {
        for (std::size_t i = 0; i < 60; ++i) {
            if (i % 3 != 0) {
                Send(*hostile[i], "x");
            }
        }
        // Bytes after a request and unfinished requests do not affect other clients.
        EXPECT_EQ(Ask(Post(5, "quick") + "surplus"), Echoed("quick"));
    }
    for (std::size_t i = 0; i < 60; ++i) {
        EXPECT_FALSE(HasHeard(*hostile[i])) << i;
    }
    Send(*hostile[1], "\r\n\r\n");
    EXPECT_EQ(Receive(*hostile[1]), Echoed(""));
    Send(*hostile[2], string(100'000 - 10, 'x'));
    EXPECT_TRUE(Receive(*hostile[2]) == Echoed(string(100'000, 'x')));
}

TEST_F(HttpServerTest, WhatCannotBecomeARequestIsRefusedAtOnce) {
    _server->StartServerThread();
    const Socket older = SendTo("GET / HT");  // this times out before the others
    for (const string& begin :
         {string("\x16\x03\x01\x02", 4), string("GET /\r\nHost: camera\r\n"), string("\r\n"),
          "GET /" + string(4'100, 'x'), "GET / HTTP/1.1\r\nA: " + string(4'100, 'x'),
          string("POST /echo HTTP/1.1\r\nContent-Length: 1048577\r\n\r\n")}) {
        EXPECT_EQ(Ask(begin), kEmpty400) << begin.substr(0, 20);
    }
    EXPECT_FALSE(HasHeard(*older));
}

TEST_F(HttpServerTest, SilenceIsAnswered400AndProgressIsNotCut) {
    const test::LogCapture log(core::Logger::kError);
    _server->SetTimeLimit(1);
    _server->StartServerThread();
    const Socket silent = Connect();
    const Socket half = SendTo("GET /echo HTTP/1.1\r\nHalf");
    const Socket body = SendTo(Post(30, "half"));
    const Socket unread = SendTo(kGetLarge, 65'536);
    const Socket steadyReader = SendTo(kGetLarge, 4'096);
    const Socket steady = SendTo(Post(30, ""));
    const Socket dribbledHead = SendTo("GET /echo HTTP/1.1\r\n");
    // Longer than the limit and than the longest silence.
    string read;
    int pieces = 0;
    for (; pieces < 30 || (pieces < 200 && !HasHeard(*dribbledHead)); ++pieces) {
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
        Send(*steady, pieces < 30 ? "x" : "");
        read += Receive(*steadyReader, 20'000);
        if (!HasHeard(*dribbledHead)) {
            Send(*dribbledHead, "A");
        }
    }
    EXPECT_LT(pieces, 200);  // a head has a limit even if it makes progress
    EXPECT_EQ(Receive(*steady), Echoed(string(30, 'x')));
    read += Receive(*steadyReader);
    const auto countOf = [](const string& text, char c) { return std::count(text.begin(), text.end(), c); };
    EXPECT_EQ(countOf(read, 'x'), 1024 * 1024);
    for (const Socket* socket : {&silent, &half, &body, &dribbledHead}) {
        EXPECT_EQ(Receive(**socket), kEmpty400);
    }
    EXPECT_TRUE(WaitUntil([&] { return log.Contains("Error in AcceptSocket:  Timeout"); }));
    EXPECT_LT(countOf(Fate(*unread), 'x'), 1024 * 1024);
    EXPECT_EQ(_echo._calls, 1);
}

TEST_F(HttpServerTest, AHandlerThatTakesLongDelaysOnlyTheRequestsThatWaitForOne) {
    std::atomic<int> running{0};
    osa::Semaphore entered("entered", 10, 0);
    osa::Semaphore leave("leave", 10, 0);
    Handler slow([&](const HttpRequest&, HttpResponse& response) {
        response.SetCode(200);
        response.SetBody(std::to_string(++running));
        entered.Release();
        leave.Lock();
        --running;
    });
    for (const unsigned int workers : {1U, 2U}) {
        _server = std::make_unique<HttpServer>("127.0.0.1", 0);
        _server->AddHandler("/echo", &slow);
        _server->SetWorkers(workers);
        _server->StartServerThread();
        // Each round has fewer bytes than may wait, and all rounds together have more.
        for (int round = 0; round < 3; ++round) {
            std::vector<Socket> clients;
            for (int i = 0; i < 5; ++i) {
                clients.push_back(SendTo(Post(1'000'000, string(1'000'000, 'x'))));
            }
            for (unsigned int i = 0; i < workers; ++i) {
                entered.Lock();
            }
            for (int i = 0; i < 64; ++i) {
                EXPECT_EQ(Ask("bad\r\n\r\n"), kEmpty400);  // meanwhile the loop reads a piece of each request
            }
            EXPECT_EQ(running, static_cast<int>(workers));
            for (int i = 0; i < 5; ++i) {
                leave.Release();
            }
            for (const Socket& client : clients) {
                EXPECT_EQ(Receive(*client).substr(0, 15), "HTTP/1.1 200 OK");
            }
            while (entered.TryLock(0)) {
            }
        }
    }
}

TEST_F(HttpServerTest, NeverRunsMoreHandlersThanItMayHoweverLongTheyTake) {
    for (const int workers : {1, 3}) {
        std::atomic<int> running{0};
        std::atomic<int> most{0};
        std::atomic<int> calls{0};
        Handler naps([&](const HttpRequest&, HttpResponse& response) {
            const int now = ++running;
            for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) {
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(++calls % 4 * 2));
            --running;
            response.SetCode(200);
        });
        _server = std::make_unique<HttpServer>("127.0.0.1", 0);
        _server->AddHandler("*", &naps);
        _server->SetWorkers(static_cast<unsigned int>(workers));
        _server->StartServerThread();
        std::vector<std::future<void>> clients;
        for (int i = 0; i < 6; ++i) {
            clients.push_back(std::async(std::launch::async, [&] {
                for (int k = 0; k < 20; ++k) {
                    EXPECT_EQ(Ask("GET / HTTP/1.1\r\n\r\n"), "HTTP/1.1 200 OK\r\n\r\n");
                }
            }));
        }
        clients.clear();  // waits for them
        _server->StopServerThread();
        EXPECT_EQ(calls, 120);
        EXPECT_LE(most, workers);
    }
}

TEST_F(HttpServerTest, HandlersKnowTheClientAndHaveAMebibyteOfStack) {
    Handler tells([](const HttpRequest& request, HttpResponse& response) {
        volatile char used[800 * 1024];
        used[0] = used[sizeof(used) - 1] = 'x';
        const _ipaddr_t source = request.GetSource();
        const _ipaddr_t dest = request.GetDest();
        response.SetCode(200);
        response.SetBody(string(source.ipv4) + "|" + source.ipv6 + "|" + std::to_string(source.port) + " " +
                         dest.ipv4 + "|" + dest.ipv6 + "|" + std::to_string(dest.port));
    });
    const struct {
        const char *server, *client, *address;
    } rows[] = {{"127.0.0.1", "127.0.0.1", "127.0.0.1|"},
                {"0.0.0.0", "127.0.0.1", "127.0.0.1|"},
                {"::", "127.0.0.1", "127.0.0.1|"},
                {"::1", "::1", "|::1"}};
    for (const auto& row : rows) {
        try {
            HttpServer server(row.server, 0);
            server.AddHandler("*", &tells);
            server.StartServerThread();
            osa::TcpSocket client;
            client.Connect(row.client, server.GetLocalPort(), 10);
            sockaddr_in6 own{};
            socklen_t size = sizeof(own);
            ::getsockname(client.getHandle(), reinterpret_cast<sockaddr*>(&own), &size);
            Send(client, "GET / HTTP/1.1\r\n\r\n");
            const string answer = Receive(client);
            EXPECT_EQ(answer.substr(answer.find("\r\n\r\n") + 4),
                      row.address + ("|" + std::to_string(ntohs(own.sin6_port))) + " " + row.address + "|" +
                          std::to_string(server.GetLocalPort()));
        } catch (const osa::SocketException& e) {
            EXPECT_NE(string(row.server).find(':'), string::npos) << e.ToString();  // no IPv6 here
        }
    }
}

TEST_F(HttpServerTest, KeepsTheRulesOfTheWebIfItIsToldTo) {
    Handler own([](const HttpRequest&, HttpResponse& response) {
        response.SetCode(200);
        response.SetHeader("connection", "Upgrade");
        response.SetHeader("Date", "never");
        response.SetBody("own");
    });
    _server->AddHandler("/own", &own);
    _server->SetStandardResponses(true);
    _server->StartServerThread();
    EXPECT_EQ(Ask("HEAD /own HTTP/1.1\r\n\r\n"),
              "HTTP/1.1 200 OK\r\nconnection: Upgrade\r\nContent-Length: 3\r\nDate: never\r\n\r\n");
    const string refused = Ask("bad\r\n\r\n");
    EXPECT_EQ(refused.find("HTTP/1.1 400 Bad Request\r\nConnection: close\r\nDate: "), 0U) << refused;
    std::tm time{};
    const char* const end =
        ::strptime(refused.c_str() + refused.find("Date: ") + 6, "%a, %d %b %Y %H:%M:%S GMT", &time);
    ASSERT_NE(end, nullptr);
    EXPECT_LE(std::abs(::timegm(&time) - std::time(nullptr)), 60);

    const string expect = "Expect: 100-continue\r\n";
    const string go = "HTTP/1.1 100 Continue\r\n\r\n";
    const Socket waits = SendTo(Post(4, "", expect));
    EXPECT_EQ(Receive(*waits, go.size()), go);
    Send(*waits, "body");
    EXPECT_EQ(Receive(*waits).substr(0, 15), "HTTP/1.1 200 OK");
    // A client that has sent its body or is refused does not get it.
    EXPECT_EQ(Ask(Post(4, "body", expect)).substr(0, 15), "HTTP/1.1 200 OK");
    EXPECT_EQ(Ask(Post(4'000'000, "", expect)).substr(0, 12), "HTTP/1.1 400");
}

TEST_F(HttpServerTest, StopLetsHandlersEndAndTheirAnswersLeave) {
    osa::Semaphore entered("entered", 1, 0);
    osa::Semaphore leave("leave", 1, 0);
    Handler slow([&](const HttpRequest&, HttpResponse& response) {
        entered.Release();
        leave.Lock();
        response.SetCode(200);
        response.SetBody(string(1024 * 1024, 'x'));
    });
    _server->AddHandler("/slow", &slow);
    _server->StartServerThread();
    const Socket served = SendTo("GET /slow HTTP/1.1\r\n\r\n", 65'536);
    entered.Lock();
    const Socket queued = SendTo(Post(2, "hi"));
    const Socket half = SendTo(Post(10, "half"));
    EXPECT_EQ(Ask("bad\r\n\r\n"), kEmpty400);  // by now the loop has also read the other requests
    auto stopping = std::async(std::launch::async, [&] { _server->StopServerThread(); });
    EXPECT_NE(Fate(*half), kEmpty400);
    EXPECT_NE(Fate(*queued), Echoed("hi"));
    EXPECT_THROW(Connect(), osa::SocketException);
    leave.Release();
    EXPECT_GT(Receive(*served).size(), 1024U * 1024U);
    stopping.get();
    EXPECT_EQ(_echo._calls, 0);
}

TEST_F(HttpServerTest, StopDoesNotWaitForAClientThatReadsForEver) {
    _server->StartServerThread();
    const Socket steady = SendTo(kGetLarge, 65'536);
    const string begin = Receive(*steady, 1);
    std::atomic<bool> hasStopped{false};
    auto reading = std::async(std::launch::async, [&] {
        std::size_t received = 0;
        try {
            for (; !hasStopped; received += Receive(*steady, 5'000).size()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        } catch (const osa::SocketException&) {
        }
        return received;
    });
    _server->StopServerThread();
    hasStopped = true;
    EXPECT_LT(reading.get(), 4'000'000U);
}

TEST_F(HttpServerTest, AHandlerMayStopTheServerAndDeleteIt) {
    for (const bool deletes : {false, true}) {
        _server = std::make_unique<HttpServer>("127.0.0.1", 0);
        _server->SetWorkers(3);
        std::atomic<bool> hasEnded{false};
        Handler ends([&](const HttpRequest&, HttpResponse& response) {
            deletes ? _server.reset() : _server->StopServerThread();
            response.SetCode(200);
            hasEnded = true;
        });
        _server->AddHandler("*", &ends);
        _server->StartServerThread();
        const unsigned short port = _server->GetLocalPort();
        EXPECT_EQ(Ask("GET / HTTP/1.1\r\n\r\n"), "HTTP/1.1 200 OK\r\n\r\n");
        EXPECT_TRUE(WaitUntil([&] {
            if (!hasEnded) {
                return false;
            }
            try {
                osa::TcpSocket().Connect("127.0.0.1", port, 10);
                return false;
            } catch (const osa::SocketException&) {
                return true;
            }
        }));
        EXPECT_EQ(_server == nullptr, deletes);
    }
}

TEST_F(HttpServerTest, HoldsALimitedNumberOfConnectionsAndOfBytes) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit few = {120, limit.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &few);
    _server->StartServerThread();
    ::setrlimit(RLIMIT_NOFILE, &limit);
    std::vector<Socket> clients;
    for (int i = 0; i < 61; ++i) {
        clients.push_back(SendTo("GET /echo HT"));
        Ask(Post(2, "hi"));  // the backlog is short
    }
    EXPECT_NE(Fate(*clients[0]), kEmpty400);
    Send(*clients.back(), "TP/1.1\r\n\r\n");
    EXPECT_EQ(Receive(*clients.back()), Echoed(""));
    clients.clear();
    for (int i = 0; i < 9; ++i) {
        clients.push_back(SendTo(Post(1'000'000, string(950'000, 'x'))));
        EXPECT_EQ(Ask(Post(2, "hi")), Echoed("hi"));
    }
    const auto isCut = [](const Socket& socket) { return HasHeard(*socket); };
    EXPECT_TRUE(WaitUntil([&] { return std::any_of(clients.begin(), clients.end(), isCut); }));
    EXPECT_EQ(std::count_if(clients.begin(), clients.end(), isCut), 1);
    const Socket& spared = *std::find_if_not(clients.begin(), clients.end(), isCut);
    Send(*spared, string(50'000, 'x'));
    EXPECT_TRUE(Receive(*spared) == Echoed(string(1'000'000, 'x')));
}

TEST_F(HttpServerTest, AFailedAllocationCostsAConnectionAndNotTheProcess) {
    if (!test::ShortMemory::IsSupported()) {
        GTEST_SKIP() << "the sanitizer has an allocator of its own";
    }
    _server->StartServerThread();
    const Socket held = SendTo("POST /echo HTTP/1.1\r\nContent-");
    EXPECT_EQ(Ask(Post(2, "hi")), Echoed("hi"));  // by now the server holds it
    {
        const test::ShortMemory memory("TcpSocketThread");
        const Socket unlucky = Connect();
        EXPECT_TRUE(WaitUntil([] { return test::ShortMemory::GetFailures() > 0; }));
        const int failures = test::ShortMemory::GetFailures();
        Send(*held, "Length: 2\r\n\r\nhi");
        EXPECT_TRUE(WaitUntil([&] { return test::ShortMemory::GetFailures() > failures; }));
    }
    EXPECT_EQ(Ask(Post(5, "alive")), Echoed("alive"));
}

class HttpStreamTest : public HttpServerTest {
protected:
    static constexpr std::size_t kSize = std::size_t{3} * 1024 * 1024;

    void SetUp() override {
        HttpServerTest::SetUp();
        _server->AddHandler("/stream/*", &_stream);
        _server->SetStandardResponses(true);
        _server->StartServerThread();
    }

    static string Put(const string& path, const string& headers) {
        return "PUT /stream/" + path + " HTTP/1.1\r\nContent-Length: " + std::to_string(kSize) + "\r\n" +
               headers + "\r\n";
    }

    void HandleStream(const HttpRequest& head, HttpResponse& response, IHttpConnection& connection) {
        if (head.GetPath() == "/stream/refused") {
            response.SetCode(401);
            return;
        }
        std::shared_ptr<osa::TcpSocket> taken = connection.Take();
        EXPECT_THROW(connection.Take(), osa::Exception);
        if (head.GetPath() == "/stream/throws") {
            throw 1;
        }
        _upload = std::async(std::launch::async, [taken, left = connection.GetContentLength()]() mutable {
            std::size_t sum = 0;
            char buffer[65'536];
            while (left > 0) {
                const unsigned int count = taken->Recv(buffer, sizeof(buffer), 10);
                sum += static_cast<std::size_t>(std::count(buffer, buffer + count, 'x'));
                left -= count;
            }
            Send(*taken, "HTTP/1.1 200 OK\r\n\r\ntaken");
            taken->Finish();
            return sum;
        });
        _isTaken = true;
    }

    StreamHandler _stream{[this](const HttpRequest& head, HttpResponse& response,
                                 IHttpConnection& connection) { HandleStream(head, response, connection); }};
    std::future<std::size_t> _upload;
    std::atomic<bool> _isTaken{false};
};

TEST_F(HttpStreamTest, TakesConnectionsWithABodyOfAnyLength) {
    const Socket client = SendTo(Put("firmware", "") + "xx");
    EXPECT_TRUE(WaitUntil([&] { return _isTaken.load(); }));
    EXPECT_EQ(Ask(Post(5, "quick")).substr(0, 15), "HTTP/1.1 200 OK");
    _server->StopServerThread();  // which does not affect the connection
    Send(*client, string(kSize - 2, 'x'));
    EXPECT_EQ(Receive(*client), "HTTP/1.1 200 OK\r\n\r\ntaken");
    EXPECT_EQ(_upload.get(), kSize);
}

// A client that waits gets "100 Continue" when the connection is taken, but not when it is refused.
TEST_F(HttpStreamTest, TellsAWaitingClientWhetherToContinue) {
    const string expect = "Expect: 100-continue\r\n";
    const string go = "HTTP/1.1 100 Continue\r\n\r\n";
    const Socket waits = SendTo(Put("firmware", expect));
    EXPECT_EQ(Receive(*waits, go.size()), go);
    Send(*waits, string(kSize, 'x'));
    EXPECT_EQ(Receive(*waits), "HTTP/1.1 200 OK\r\n\r\ntaken");
    EXPECT_EQ(Ask(Put("refused", expect)).substr(0, 25), "HTTP/1.1 401 Unauthorized");
    EXPECT_EQ(Ask(Put("refused", "") + string(kSize, 'x')).substr(0, 25), "HTTP/1.1 401 Unauthorized");
    EXPECT_EQ(Fate(*SendTo(Put("throws", ""))), "");

    HttpDispatcher dispatcher;
    dispatcher.AddHandler("*", &_stream);
    std::stringstream wire("GET / HTTP/1.1\r\n\r\n");
    std::ostringstream answer;
    dispatcher.HandleRequest(wire, answer);
    EXPECT_EQ(answer.str(), "HTTP/1.1 501 Not Implemented\r\n\r\n");
}

TEST(HttpServer, ServesAUnixDomainSocketToo) {
    const string name = "zarip-test-http-" + std::to_string(::getpid());
    HttpServer server(name, 0);
    Handler hello([](const HttpRequest& request, HttpResponse& response) {
        response.SetCode(200);
        response.SetBody("hello");
        EXPECT_STREQ(request.GetSource().ipv4, "0.0.0.0");
    });
    server.AddHandler("*", &hello);
    server.StartServerThread();
    const auto ask = [&](const string& text) {
        osa::TcpSocket client;
        client.Connect(name.c_str(), 0, 10);
        Send(client, text);
        return Receive(client);
    };
    // Its connections can be captured like those of other servers.
    EXPECT_EQ(ask("dump start\n"), "");
    EXPECT_EQ(ask("GET / HTTP/1.1\r\n\r\n"), "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello");
    EXPECT_EQ(ask("dump stop\n"), "");
    const string file = "/tmp/" + name + ".pcap";
    EXPECT_EQ(std::filesystem::file_size(file), 24U + 78U + 18U + 78U + 43U);
    std::filesystem::remove(file);
}

}  // namespace
}  // namespace zarip::inet
