// SPDX-License-Identifier: MIT

// Poco's HTTPServer without keep-alive and with a handler that answers with 1 KiB. Prints its port.
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>

#include <unistd.h>

#include <cstdio>
#include <string>

namespace net = Poco::Net;

namespace {

class Handler : public net::HTTPRequestHandler {
public:
    void handleRequest(net::HTTPServerRequest& /*request*/, net::HTTPServerResponse& response) override {
        static const std::string kText(1024, 'x');
        response.setContentType("text/plain");
        response.sendBuffer(kText.data(), kText.size());
    }
};

class Factory : public net::HTTPRequestHandlerFactory {
public:
    net::HTTPRequestHandler* createRequestHandler(const net::HTTPServerRequest& /*request*/) override {
        return new Handler;
    }
};

}  // namespace

int main() {
    const net::ServerSocket socket(net::SocketAddress("127.0.0.1", 0));
    auto* const params = new net::HTTPServerParams;
    params->setKeepAlive(false);
    net::HTTPServer server(new Factory, socket, params);
    server.start();
    std::printf("%u\n", static_cast<unsigned int>(server.port()));
    std::fflush(stdout);
    for (;;) {
        ::pause();
    }
}
