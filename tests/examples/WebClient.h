// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include "support/Program.h"
#include "support/WaitUntil.h"
#include "zarip/osa/TcpSocket.h"

namespace zarip::test {

/// The port of a web server, when it has printed its address; "" if it does not.
inline std::string WaitForPort(const Program& program) {
    const std::string mark = "http://127.0.0.1:";
    std::string port;
    WaitUntil([&] {
        const std::string output = program.GetOutput();
        const std::size_t at = output.find(mark);
        const std::size_t end = at != std::string::npos ? output.find("/\n", at) : at;
        port = end != std::string::npos ? output.substr(at + mark.size(), end - at - mark.size()) : "";
        return !port.empty();
    });
    return port;
}

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
