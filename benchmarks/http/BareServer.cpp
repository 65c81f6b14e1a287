// SPDX-License-Identifier: MIT

// The least that answers a GET: accept, receive, send, close, on one thread. Prints its port.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <string>

int main() {
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(listener, 10) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return 1;
    }
    std::printf("%u\n", static_cast<unsigned int>(ntohs(address.sin_port)));
    std::fflush(stdout);
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 1024\r\nContent-Type: text/plain\r\n\r\n" +
                               std::string(1024, 'x');
    char request[4096];
    for (;;) {
        const int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection >= 0) {
            if (::recv(connection, request, sizeof(request), 0) > 0) {
                ::send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
            }
            ::close(connection);
        }
    }
}
