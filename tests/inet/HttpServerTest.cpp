#include "zarip/inet/HttpServer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <vector>

#include "support/WaitUntil.h"
#include "zarip/inet/HttpRequest.h"
#include "zarip/inet/HttpResponse.h"
#include "zarip/inet/IHttpHandler.h"
#include "zarip/osa/Semaphore.h"
#include "zarip/osa/SocketException.h"
#include "zarip/osa/TcpSocket.h"

namespace zarip::inet {
namespace {

using std::string;

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

/// The resident size of this process in KiB.
long ResidentKiB() {
    std::ifstream status("/proc/self/status");
    for (string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::stol(line.substr(6));
        }
    }
    return 0;
}

class HttpServerTest : public testing::Test {
protected:
    HttpServerTest()
        : _echo([](const HttpRequest& request, HttpResponse& response) {
              response.SetCode(200);
              response.SetHeader("Content-Type", "text/plain");
              response.SetBody(request.GetBody(), request.GetBodyLength());
          }) {
        _server.AddHandler("/echo", &_echo);
    }

    std::unique_ptr<osa::TcpSocket> Connect() {
        auto socket = std::make_unique<osa::TcpSocket>();
        socket->Connect("127.0.0.1", _server.GetLocalPort(), 10);
        return socket;
    }

    static void Send(osa::TcpSocket& socket, const string& text) {
        socket.SendAll(text.data(), static_cast<unsigned int>(text.size()));
    }

    static string Receive(osa::TcpSocket& socket) {
        string answer;
        char buffer[4096];
        while (const unsigned int count = socket.Recv(buffer, sizeof(buffer), 20)) {
            answer.append(buffer, count);
        }
        return answer;
    }

    string Ask(const string& request) {
        const auto socket = Connect();
        Send(*socket, request);
        return Receive(*socket);
    }

    HttpServer _server{"127.0.0.1", 65536};
    Handler _echo;
};

const string kEmpty400 = "HTTP/1.1 400 Bad Request\r\n\r\n";

string Post(std::size_t announced, const string& body) {
    return "POST /echo HTTP/1.1\r\nContent-Length: " + std::to_string(announced) + "\r\n\r\n" + body;
}

TEST_F(HttpServerTest, AnswersOneRequestForEachConnection) {
    _server.StartServerThread();
    EXPECT_EQ(Ask(Post(5, "hello")),
              "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nContent-Type: text/plain\r\n\r\nhello");
    EXPECT_EQ(Ask(Post(0, "") + Post(6, "unseen")),
              "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nContent-Type: text/plain\r\n\r\n");
    EXPECT_EQ(Ask("GET /nowhere HTTP/1.1\r\n\r\n"),
              "HTTP/1.1 404 Not Found\r\nContent-Length: 9\r\nContent-Type: text/html; "
              "charset=UTF-8\r\n\r\nNot Found");
    EXPECT_EQ(Ask("GET / HTTP/1.1 extra\r\n\r\n"), kEmpty400);
    EXPECT_EQ(Ask("GET /" + string(5000, 'x') + " HTTP/1.1\r\n\r\n"), kEmpty400);
    EXPECT_EQ(Ask("GET /echo HTTP/1.1\r\nX: " + string(10'000, 'x') + "\r\n\r\n"), kEmpty400);
    EXPECT_EQ(_echo._calls, 2);
    _server.StopServerThread();
    _server.StopServerThread();
    EXPECT_THROW(Connect(), osa::SocketException);
}

TEST_F(HttpServerTest, TakesABodyOfOneMebibyteAndNotAByteMore) {
    _server.StartServerThread();
    const string body(1024 * 1024, '\xff');
    const string answer = Ask(Post(body.size(), body));
    EXPECT_EQ(answer.substr(answer.size() - body.size()), body);
    EXPECT_EQ(Ask(Post(body.size() + 1, body + "x")), kEmpty400);
    EXPECT_EQ(_echo._calls, 1);
}

TEST_F(HttpServerTest, TheWorstRequestsCostLittleMemory) {
    _server.SetTimeLimit(1);
    _server.StartServerThread();
    Ask(Post(2, "hi"));
    const long before = ResidentKiB();
    EXPECT_EQ(Ask("GET / HTTP/1.1\r\nContent-Length: 18446744073709551615\r\n\r\n"), kEmpty400);
    string headers;
    for (int i = 0; i < 2000; ++i) {
        headers += "X" + std::to_string(i) + ": " + string(1000, 'v') + "\r\n";
    }
    const auto flood = Connect();
    try {
        Send(*flood, "GET /echo HTTP/1.1\r\n" + headers + "\r\n");
        EXPECT_EQ(Receive(*flood), kEmpty400);
    } catch (const osa::SocketException&) {
        // Refused in the middle of it; what counts is that the server lives and has not grown.
    }
    Ask(Post(4'000'000'000, string(2'000'000, 'x')));
    EXPECT_LT(ResidentKiB() - before, 32 * 1024);
    EXPECT_NE(Ask(Post(5, "alive")).find("alive"), string::npos);
}

TEST_F(HttpServerTest, ClientsThatSayNothingOrDribbleAHeaderDoNotHoldUpOthers) {
    _server.SetTimeLimit(20);
    _server.StartServerThread();
    std::vector<std::unique_ptr<osa::TcpSocket>> silent;
    for (int i = 0; i < 100; ++i) {
        silent.push_back(Connect());
    }
    const auto dribbling = Connect();
    const string request = "GET /echo HTTP/1.1\r\nA: b\r\n\r\n";
    for (std::size_t i = 0; i + 1 < request.size(); ++i) {
        Send(*dribbling, request.substr(i, 1));
        if (i % 5 == 0) {
            EXPECT_NE(Ask(Post(5, "quick")).find("quick"), string::npos);
        }
    }
    // None of the others was served meanwhile.
    EXPECT_EQ(_echo._calls, 6);
    Send(*dribbling, "\n");
    EXPECT_EQ(Receive(*dribbling).substr(0, 15), "HTTP/1.1 200 OK");
    Send(*silent[50], Post(4, "late"));
    EXPECT_NE(Receive(*silent[50]).find("late"), string::npos);
}

TEST_F(HttpServerTest, AConnectionThatUsesUpItsTimeIsAnswered400) {
    _server.SetTimeLimit(1);
    _server.StartServerThread();
    EXPECT_EQ(Ask("GET /echo HTTP/1.1\r\nHalf"), kEmpty400);
    // A body that never ends, a few bytes at a time.
    const auto dribbling = Connect();
    Send(*dribbling, Post(1'000'000, ""));
    std::atomic<bool> over{false};
    auto feeding = std::async(std::launch::async, [&] {
        try {
            while (!over) {
                Send(*dribbling, "x");
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
        } catch (const osa::SocketException&) {
        }
    });
    EXPECT_EQ(Receive(*dribbling), kEmpty400);
    over = true;
    feeding.get();
    EXPECT_EQ(_echo._calls, 0);
}

TEST_F(HttpServerTest, StopsInTheMiddleOfARequest) {
    osa::Semaphore entered("entered", 1, 0);
    Handler slow([&](const HttpRequest&, HttpResponse& response) {
        entered.Release();
        response.SetCode(200);
        response.SetBody(string(1024 * 1024, 'x'));
    });
    _server.AddHandler("/slow", &slow);
    _server.StartServerThread();
    std::vector<std::unique_ptr<osa::TcpSocket>> clients;
    clients.push_back(Connect());
    clients.back()->SetBufferSize(4096);
    Send(*clients.back(), "GET /slow HTTP/1.1\r\n\r\n");
    entered.Lock();
    clients.push_back(Connect());
    Send(*clients.back(), Post(10, "half"));
    _server.StopServerThread();
}

TEST(HttpServer, ServesAUnixDomainSocketToo) {
    const string name = "zarip-test-http-" + std::to_string(::getpid());
    HttpServer server(name, 0);
    Handler hello([](const HttpRequest&, HttpResponse& response) {
        response.SetCode(200);
        response.SetBody("hello");
    });
    server.AddHandler("*", &hello);
    server.StartServerThread();
    const auto ask = [&](const string& text) {
        osa::TcpSocket client;
        client.Connect(name.c_str(), 0, 10);
        client.SendAll(text.data(), static_cast<unsigned int>(text.size()));
        char buffer[100];
        return string(buffer, client.Recv(buffer, sizeof(buffer), 10));
    };
    // It can be captured like any other.
    EXPECT_EQ(ask("dump start\n"), "");
    EXPECT_EQ(ask("GET / HTTP/1.1\r\n\r\n"), "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello");
    EXPECT_EQ(ask("dump stop\n"), "");
    const string file = "/tmp/" + name + ".pcap";
    EXPECT_EQ(std::filesystem::file_size(file), 24U + 78U + 18U + 78U + 43U);
    std::filesystem::remove(file);
}

}  // namespace
}  // namespace zarip::inet
