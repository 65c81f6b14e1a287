// SPDX-License-Identifier: MIT

#include "zarip/interfaces/InterfaceServer.h"

#include "zarip/msgbus/IMsgBus.h"

namespace zarip::interfaces {

InterfaceServer::InterfaceServer(msgbus::IMsgBus* bus, const char* busName)
    : InterfaceServer(bus, std::string(busName != nullptr ? busName : "")) {}

InterfaceServer::InterfaceServer(msgbus::IMsgBus* bus, const std::string& busName)
    : _bus(bus), _busName(busName) {
    _bus->RegisterDestinationName(_busName);
}

InterfaceServer::~InterfaceServer() {
    try {
        _bus->UnregisterDestinationName(_busName);
    } catch (...) {
        // The bus releases the name at the latest when the connection closes.
    }
    _bus = nullptr;
}

}  // namespace zarip::interfaces
