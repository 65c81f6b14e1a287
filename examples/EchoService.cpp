// SPDX-License-Identifier: MIT

// A stream service on a unix-domain socket, whose traffic can be captured while it runs.
//
//   echo-service serve NAME      sends back what it gets on /tmp/sockets/NAME, one connection at a time
//   echo-service say NAME TEXT   sends a text and prints what comes back
//   echo-service capture NAME start|stop
//                                starts or ends writing all its traffic to /tmp/NAME.pcap, for root and the
//                                service's own user; the service's log tells what it refuses

#include <sys/stat.h>

#include <zarip/core/IniFile.h>
#include <zarip/core/Logger.h>
#include <zarip/msgbus/StopSignal.h>
#include <zarip/osa/ITcpSocketAccept.h>
#include <zarip/osa/TcpServer.h>
#include <zarip/osa/TcpSocket.h>

#include <cstdio>
#include <memory>
#include <string>

namespace {

using zarip::osa::TcpSocket;

class Echo final : public zarip::osa::ITcpSocketAccept {
public:
    void AcceptSocket(TcpSocket* accepted) override {
        const std::unique_ptr<TcpSocket> socket(accepted);
        socket->SetTimeLimit(30'000);  // whoever waits behind it waits no longer
        char buffer[4096];
        while (const unsigned int count = socket->Recv(buffer, sizeof(buffer), 10)) {
            socket->SendAll(buffer, count);
        }
    }
};

void Send(TcpSocket& socket, const char* name, const std::string& text) {
    socket.Connect(name, 0, 5);
    socket.SendAll(text.data(), static_cast<unsigned int>(text.size()));
    socket.ShutdownSend();
}

}  // namespace

int main(int argc, char** argv) {
    const std::string command = argc > 1 ? argv[1] : "";
    try {
        if (command == "serve" && argc == 3) {
            const zarip::msgbus::StopSignal stop;
            zarip::core::IniFile settings;
            settings.SetValue("log", "log.stdout", "true");
            zarip::core::Logger::ConfigureLogging(settings, "log");
            Echo echo;
            zarip::osa::TcpServer server(argv[2], 0);
            ::umask(077);  // a capture holds all that clients said
            server.Start(&echo, 5);
            std::printf("echoing on /tmp/sockets/%s\n", argv[2]);
            std::fflush(stdout);
            stop.Wait();
            return 0;
        }
        TcpSocket socket;
        char buffer[4096];
        if (command == "say" && argc == 4) {
            Send(socket, argv[2], argv[3]);
            while (const unsigned int count = socket.Recv(buffer, sizeof(buffer), 5)) {
                std::fwrite(buffer, 1, count, stdout);
            }
            std::printf("\n");
            return 0;
        }
        const std::string what = argc == 4 ? argv[3] : "";
        if (command == "capture" && (what == "start" || what == "stop")) {
            Send(socket, argv[2], "dump " + what + "\n");
            socket.Recv(buffer, sizeof(buffer), 5);  // the end of the connection: it is done
            return 0;
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "echo-service: %s\n", e.what());
        return 1;
    }
    std::fprintf(stderr, "usage: echo-service serve NAME | say NAME TEXT | capture NAME start|stop\n");
    return 2;
}
