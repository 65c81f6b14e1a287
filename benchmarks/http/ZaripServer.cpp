// The library's server with a handler that answers with 1 KiB. Prints its port.
#include <zarip/inet/HttpRequest.h>
#include <zarip/inet/HttpResponse.h>
#include <zarip/inet/HttpServer.h>
#include <zarip/inet/IHttpHandler.h>

#include <unistd.h>

#include <cstdio>
#include <string>

namespace {

class Kibibyte final : public zarip::inet::IHttpHandler {
public:
    void HandleRequest(const zarip::inet::HttpRequest& /*request*/,
                       zarip::inet::HttpResponse& response) override {
        response.SetCode(200);
        response.SetHeader("Content-Type", "text/plain");
        response.SetBody(_text);
    }

private:
    std::string _text = std::string(1024, 'x');
};

}  // namespace

int main() {
    Kibibyte handler;
    zarip::inet::HttpServer server("127.0.0.1", 0);
    server.AddHandler("*", &handler);
    server.StartServerThread();
    std::printf("%u\n", static_cast<unsigned int>(server.GetLocalPort()));
    std::fflush(stdout);
    for (;;) {
        ::pause();
    }
}
