// SPDX-License-Identifier: MIT

#include "zarip/msgbus/MessageHandlerCollection.h"

#include <utility>

#include "zarip/msgbus/IMsgBus.h"

namespace zarip::msgbus {

MessageHandlerCollection::MessageHandlerCollection(IMsgBus* bus) : _bus(bus) {}

MessageHandlerCollection::~MessageHandlerCollection() {
    std::size_t unregistered = 0;
    try {
        for (; unregistered != _handlers.size(); ++unregistered) {
            _bus->UnregisterMessageHandler(_handlers[unregistered].get());
        }
    } catch (...) {
        // Deliberate: unregistering ends at the first failure. The remaining handlers are still registered
        // and a message may reach them at any time, so they are not deleted.
        for (; unregistered != _handlers.size(); ++unregistered) {
            static_cast<void>(_handlers[unregistered].release());
        }
    }
}

void MessageHandlerCollection::AddHandler(const std::string& interface, const std::string& member,
                                          IMessageHandler* handler) {
    std::unique_ptr<IMessageHandler> owned(handler);
    _handlers.push_back(std::move(owned));
    try {
        _bus->RegisterMessageHandler(member, interface, handler);
    } catch (...) {
        _handlers.pop_back();
        throw;
    }
}

}  // namespace zarip::msgbus
