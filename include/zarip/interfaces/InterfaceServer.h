// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Export.h>

namespace zarip::msgbus {
class IMsgBus;
}

namespace zarip::interfaces {

/// The base class of all server adapters. It owns the bus name of a service while it exists. *One thread at a
/// time.*
class ZARIP_EXPORT InterfaceServer {
public:
    /// Acquires the name. Throws what `IMsgBus::RegisterDestinationName` throws.
    /// @param bus  *not owned*, must outlive the server.
    InterfaceServer(msgbus::IMsgBus* bus, const char* busName);
    InterfaceServer(msgbus::IMsgBus* bus, const std::string& busName);
    InterfaceServer(const InterfaceServer&) = delete;
    InterfaceServer& operator=(const InterfaceServer&) = delete;

    /// Releases the name. Never throws.
    virtual ~InterfaceServer();

protected:
    msgbus::IMsgBus* GetBus() const { return _bus; }

private:
    msgbus::IMsgBus* _bus;
    std::string _busName;
};

}  // namespace zarip::interfaces
