// SPDX-License-Identifier: MIT

// cpp-httplib with one worker thread and a handler that answers with 1 KiB. Prints its port.
#include <httplib.h>

#include <cstdio>
#include <string>

int main() {
    httplib::Server server;
    server.new_task_queue = [] { return new httplib::ThreadPool(1); };
    server.set_keep_alive_max_count(1);
    const std::string text(1024, 'x');
    server.Get("/.*", [&text](const httplib::Request& /*request*/, httplib::Response& response) {
        response.set_content(text, "text/plain");
    });
    std::printf("%d\n", server.bind_to_any_port("127.0.0.1"));
    std::fflush(stdout);
    server.listen_after_bind();
}
