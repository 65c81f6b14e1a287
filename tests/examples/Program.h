// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/PrivateBus.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"
#include "zarip/osa/Process.h"
#include "zarip/osa/TcpSocket.h"

namespace zarip::test {

/// A program of the camera on the private bus, with its output in a file.
class Program {
public:
    Program(const char* path, const std::vector<std::string>& arguments) {
        osa::Process::Options options;
        options.environment["DBUS_SYSTEM_BUS_ADDRESS"] = PrivateBus::Get().GetAddress();
        options.output = osa::Process::Redirect::File(_folder.File("output"));
        options.error = osa::Process::Redirect::Output();
        _process = std::make_unique<osa::Process>(path, arguments, options);
    }

    std::string GetOutput() const { return _folder.Read("output"); }
    osa::Process& GetProcess() { return *_process; }

    /// The port of a web server, when it has printed its address; "" if it does not.
    std::string WaitForPort() const {
        const std::string mark = "http://127.0.0.1:";
        std::string port;
        WaitUntil([&] {
            const std::string output = GetOutput();
            const std::size_t at = output.find(mark);
            const std::size_t end = at != std::string::npos ? output.find("/\n", at) : at;
            port = end != std::string::npos ? output.substr(at + mark.size(), end - at - mark.size()) : "";
            return !port.empty();
        });
        return port;
    }

private:
    TempDir _folder;
    std::unique_ptr<osa::Process> _process;
};

/// Connects to a web server and sends a request; what follows its head may be sent in pieces.
inline void Send(osa::TcpSocket& socket, const std::string& port, const std::string& request) {
    socket.Connect("127.0.0.1", static_cast<unsigned short>(std::stoi(port)), 10);
    socket.SendAll(request.data(), static_cast<unsigned int>(request.size()));
}

/// All that comes until the server closes.
inline std::string ReceiveAll(osa::TcpSocket& socket) {
    std::string answer;
    char buffer[4'096];
    while (const unsigned int count = socket.Recv(buffer, sizeof(buffer), 60)) {
        answer.append(buffer, count);
    }
    return answer;
}

}  // namespace zarip::test
