// SPDX-License-Identifier: MIT

#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>

#include "support/Messages.h"
#include "support/PrivateBus.h"
#include "support/WaitUntil.h"
#include "zarip/inet/HttpRequest.h"
#include "zarip/inet/HttpResponse.h"
#include "zarip/inet/HttpServer.h"
#include "zarip/inet/IHttpHandler.h"
#include "zarip/msgbus/MsgBus.h"
#include "zarip/osa/ITcpSocketAccept.h"
#include "zarip/osa/IUdpBufferAccept.h"
#include "zarip/osa/TcpSocket.h"

/// Services and clients that several rows use.
namespace zarip::reliability {

constexpr const char* kPath = "/org/camera/test";
constexpr const char* kInterface = "org.camera.test";
inline const msgbus::MsgBusObjectSelector kEcho("org.camera.test", kPath, kInterface);

/// Answers "Echo" on a connection of its own.
struct EchoService {
    EchoService() {
        bus.RegisterDestinationName("org.camera.test");
        bus.RegisterMessageHandler("Echo", kInterface, &echo);
        bus.StartServer();
    }
    EchoService(const EchoService&) = delete;
    EchoService& operator=(const EchoService&) = delete;
    ~EchoService() {
        bus.StopServer();
        bus.UnregisterMessageHandler(&echo);
    }
    msgbus::MsgBus bus;
    test::FunctionHandler echo = test::Answering([](const std::string& text) { return text; });
};

/// A connection that counts the signals "Changed".
struct Subscriber {
    Subscriber() {
        bus.RegisterMessageHandler("Changed", kInterface, &counting);
        bus.StartServer();
    }
    Subscriber(const Subscriber&) = delete;
    Subscriber& operator=(const Subscriber&) = delete;
    ~Subscriber() {
        bus.StopServer();
        bus.UnregisterMessageHandler(&counting);
    }
    bool WaitFor(int count, std::chrono::milliseconds deadline = std::chrono::seconds(10)) const {
        return test::WaitUntil([&] { return received >= count; }, deadline);
    }
    msgbus::MsgBus bus;
    std::atomic<int> received{0};
    test::FunctionHandler counting{[this](const msgbus::MsgBusMsg&, msgbus::IMsgBus&) { ++received; },
                                   msgbus::IMessageHandler::kSignals};
};

inline void SendSignal(msgbus::IMsgBus& bus, const char* text = "x") {
    msgbus::MsgBusSignal signal(kPath, kInterface, "Changed");
    signal << text;
    bus.SendMsg(signal);
}

/// Answers every request with its path, after `delayMs`.
class PathHandler final : public inet::IHttpHandler {
public:
    void HandleRequest(const inet::HttpRequest& request, inet::HttpResponse& response) override {
        if (delayMs != 0) {
            ::usleep(static_cast<useconds_t>(delayMs) * 1000);
        }
        response.SetCode(200);
        response.SetBody(request.GetPath());
    }
    std::atomic<int> delayMs{0};
};

/// A web server on a free port.
struct WebServer {
    WebServer() : server("127.0.0.1", 0) {
        server.AddHandler("*", &handler);
        server.StartServerThread();
    }
    PathHandler handler;
    inet::HttpServer server;
};

/// Connects to a port of this machine with the calls of the system alone; -1 on failure. With SOCK_NONBLOCK
/// the connection is only begun.
inline int ConnectTo(unsigned short port, int flags = 0) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const timeval limit{20, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 &&
        errno != EINPROGRESS) {
        ::close(fd);
        return -1;
    }
    return fd;
}

inline void SendBytes(int fd, const char* text) {
    const ssize_t ignored = ::send(fd, text, std::strlen(text), MSG_NOSIGNAL);
    static_cast<void>(ignored);
}

/// The status of the answer to a request of "/path", 0 if the connection ends without one, -1 if there is no
/// connection or the answer is damaged. Allocates nothing.
inline int Get(unsigned short port) {
    const int fd = ConnectTo(port);
    if (fd < 0) {
        return -1;
    }
    SendBytes(fd, "GET /path HTTP/1.1\r\nHost: here\r\n\r\n");
    char answer[2048];
    std::size_t length = 0;
    ssize_t count = 0;
    while (length < sizeof(answer) - 1 &&
           (count = ::recv(fd, answer + length, sizeof(answer) - 1 - length, 0)) > 0) {
        length += static_cast<std::size_t>(count);
    }
    ::close(fd);
    errno = 0;
    answer[length] = '\0';
    if (length == 0) {
        return 0;
    }
    const int status = std::strncmp(answer, "HTTP/1.1 ", 9) == 0 ? std::atoi(answer + 9) : -1;
    return status == 200 && std::strstr(answer, "\r\n\r\n/path") == nullptr ? -1 : status;
}

/// Takes connections and closes them at once, or keeps them open for a time.
class Acceptor final : public osa::ITcpSocketAccept {
public:
    void AcceptSocket(osa::TcpSocket* socket) override {
        ++accepted;
        delete socket;
    }
    std::atomic<int> accepted{0};
};

/// Counts datagrams.
class DatagramCounter final : public osa::IUdpBufferAccept {
public:
    void AcceptBuffer(const unsigned char*, unsigned int, const osa::UdpSocket::Info&) override {
        ++received;
    }
    std::atomic<int> received{0};
};

}  // namespace zarip::reliability
