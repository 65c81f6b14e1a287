// SPDX-License-Identifier: MIT

// Clients of a web server, each on a thread of its own: connect, GET, read to the end, close, again and
// again.
//
//   load PORT CLIENTS REQUESTS     prints the requests a second; and of the times that one takes, in us, the
//                                  median, the longest, and the one that 99 of 100 stay below
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kRequest[] =
    "GET /kibibyte HTTP/1.1\r\nHost: camera\r\nUser-Agent: load\r\nAccept: */*\r\nConnection: close\r\n\r\n";

bool Get(unsigned short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    bool good = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
                ::send(fd, kRequest, sizeof(kRequest) - 1, MSG_NOSIGNAL) ==
                    static_cast<ssize_t>(sizeof(kRequest) - 1);
    char buffer[8192];
    std::size_t total = 0;
    for (ssize_t count = 1; good && count > 0;
         total += static_cast<std::size_t>(std::max<ssize_t>(count, 0))) {
        count = ::recv(fd, buffer, sizeof(buffer), 0);
        good = count >= 0 && (total > 0 || std::memcmp(buffer, "HTTP/1.1 200", 12) == 0);
    }
    ::close(fd);
    return good && total > 1024;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        return 2;
    }
    const auto port = static_cast<unsigned short>(std::atoi(argv[1]));
    const int clients = std::atoi(argv[2]);
    const int each = std::atoi(argv[3]) / clients;
    std::vector<std::vector<double>> times(static_cast<std::size_t>(clients));
    const auto begin = Clock::now();
    std::vector<std::thread> threads;
    for (auto& mine : times) {
        threads.emplace_back([port, each, &mine] {
            for (int i = 0; i < each; ++i) {
                const auto start = Clock::now();
                if (!Get(port)) {
                    std::fprintf(stderr, "a request failed\n");
                    std::exit(1);
                }
                mine.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    std::vector<double> all;
    for (const auto& mine : times) {
        all.insert(all.end(), mine.begin(), mine.end());
    }
    std::sort(all.begin(), all.end());
    std::printf("%.0f %.0f %.0f %.0f\n", static_cast<double>(all.size()) / seconds, all[all.size() / 2],
                all.back(), all[all.size() * 99 / 100]);
}
