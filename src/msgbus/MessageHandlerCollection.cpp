#include "zarip/msgbus/MessageHandlerCollection.h"

#include <utility>

#include "zarip/msgbus/IMsgBus.h"

namespace zarip::msgbus {

MessageHandlerCollection::MessageHandlerCollection(IMsgBus* bus) : _bus(bus) {}

MessageHandlerCollection::~MessageHandlerCollection() {
    for (const auto& handler : _handlers) {
        try {
            _bus->UnregisterMessageHandler(handler.get());
        } catch (...) {
            // An implementation that breaks its promise must not keep the other handlers registered.
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
