// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>
#include <vector>

#include <zarip/msgbus/IMessageHandler.h>
#include <zarip/osa/Export.h>

namespace zarip::msgbus {

class IMsgBus;

/// The handlers of an object on one bus. The destructor unregisters and deletes them. *One thread at a time.*
class ZARIP_EXPORT MessageHandlerCollection {
public:
    /// @param bus  *not owned*, must outlive the collection.
    explicit MessageHandlerCollection(IMsgBus* bus);
    MessageHandlerCollection(const MessageHandlerCollection&) = delete;
    MessageHandlerCollection& operator=(const MessageHandlerCollection&) = delete;

    /// Unregisters and deletes the handlers. When it has returned, no handler runs except one that has called
    /// it. If the bus fails to unregister a handler, which `MsgBus` never does, that handler and those after
    /// it stay registered and are not deleted.
    ~MessageHandlerCollection();

    /// Registers the handler and *takes ownership* of it, even if this throws.
    void AddHandler(const std::string& interface, const std::string& member, IMessageHandler* handler);

private:
    IMsgBus* _bus;
    std::vector<std::unique_ptr<IMessageHandler>> _handlers;
};

}  // namespace zarip::msgbus
