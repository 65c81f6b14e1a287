// SPDX-License-Identifier: MIT

// The library's server with a handler that answers with 1 KiB, or 1 MiB for /large. Prints its port.
//
//   zarip-bench-http-zarip [--standard]   with the web's rules
#include <zarip/inet/HttpRequest.h>
#include <zarip/inet/HttpResponse.h>
#include <zarip/inet/HttpServer.h>
#include <zarip/inet/IHttpHandler.h>

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

class Text final : public zarip::inet::IHttpHandler {
public:
    explicit Text(std::size_t size) : _text(size, 'x') {}

    void HandleRequest(const zarip::inet::HttpRequest& /*request*/,
                       zarip::inet::HttpResponse& response) override {
        response.SetCode(200);
        response.SetHeader("Content-Type", "text/plain");
        response.SetBody(_text);
    }

private:
    std::string _text;
};

}  // namespace

int main(int argc, char** argv) {
    Text kibibyte(1024);
    Text mebibyte(1024 * 1024);
    zarip::inet::HttpServer server("127.0.0.1", 0);
    server.AddHandler("*", &kibibyte);
    server.AddHandler("/large", &mebibyte);
    server.SetStandardResponses(argc > 1 && std::strcmp(argv[1], "--standard") == 0);
    server.StartServerThread();
    std::printf("%u\n", static_cast<unsigned int>(server.GetLocalPort()));
    std::fflush(stdout);
    for (;;) {
        ::pause();
    }
}
