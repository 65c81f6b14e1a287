// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Export.h>

namespace zarip::msgbus {
class IMsgBus;
}

namespace zarip::interfaces {

/// What every server adapter is: the owner of a service's bus name while it exists. *One thread at a time.*
class ZARIP_EXPORT InterfaceServer {
public:
    /// Claims the name; throws what `IMsgBus::RegisterDestinationName` throws.
    /// @param bus  *not owned*, must outlive the server.
    InterfaceServer(msgbus::IMsgBus* bus, const char* busName);
    InterfaceServer(msgbus::IMsgBus* bus, const std::string& busName);
    InterfaceServer(const InterfaceServer&) = delete;
    InterfaceServer& operator=(const InterfaceServer&) = delete;

    /// Gives the name up; never throws.
    virtual ~InterfaceServer();

protected:
    msgbus::IMsgBus* GetBus() const { return _bus; }

private:
    msgbus::IMsgBus* _bus;
    std::string _busName;
};

}  // namespace zarip::interfaces
