// SPDX-License-Identifier: MIT

#pragma once

#include <arpa/inet.h>

#include <string>

#include <zarip/core/IniFile.h>
#include <zarip/osa/Exception.h>

/// The address in device.ini at which the web gateway listens. The gateway and the responder that announces
/// it both use this class, so the announced address is the one that is served.
struct WebAddress {
    std::string address = "127.0.0.1";
    int port = 8'080;

    WebAddress() = default;

    /// Throws `osa::Exception` for values that cannot be.
    explicit WebAddress(const zarip::core::IniFile& device) {
        address = device.GetValueOrDefault("web", "address", address);
        port = device.GetIntOrDefault("web", "port", port);
        in_addr parsed{};
        if (::inet_pton(AF_INET, address.c_str(), &parsed) != 1 || port < 0 || port > 65'535) {
            throw zarip::osa::Exception("[web] has a bad address or port: \"" + address + "\", " +
                                        std::to_string(port));
        }
    }

    /// Whether it can be reached at another address of the machine.
    bool IsServedAt(const std::string& other) const { return address == "0.0.0.0" || address == other; }
};
