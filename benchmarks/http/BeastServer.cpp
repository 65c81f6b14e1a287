// SPDX-License-Identifier: MIT

// Boost.Beast without an event loop of its own: one request for each connection, read, answered with 1 KiB
// and closed on one thread. Prints its port.
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <cstdio>
#include <string>

namespace beast = boost::beast;
namespace http = beast::http;
using tcp = boost::asio::ip::tcp;

int main() {
    boost::asio::io_context context{1};
    tcp::acceptor acceptor(context, {boost::asio::ip::make_address("127.0.0.1"), 0});
    acceptor.listen(10);
    std::printf("%u\n", static_cast<unsigned int>(acceptor.local_endpoint().port()));
    std::fflush(stdout);
    const std::string text(1024, 'x');
    for (;;) {
        tcp::socket socket(context);
        beast::error_code error;
        acceptor.accept(socket, error);
        beast::flat_buffer buffer;
        http::request<http::string_body> request;
        http::read(socket, buffer, request, error);
        if (error) {
            continue;
        }
        http::response<http::string_body> response(http::status::ok, request.version());
        response.set(http::field::content_type, "text/plain");
        response.keep_alive(false);
        response.body() = text;
        response.prepare_payload();
        http::write(socket, response, error);
        socket.shutdown(tcp::socket::shutdown_send, error);
    }
}
