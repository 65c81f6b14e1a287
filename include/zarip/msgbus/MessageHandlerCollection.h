// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>
#include <vector>

#include <zarip/msgbus/IMessageHandler.h>
#include <zarip/osa/Export.h>

namespace zarip::msgbus {

class IMsgBus;

/// The handlers that an object has on one bus; destroying it unregisters and deletes them. *One thread at a
/// time.*
class ZARIP_EXPORT MessageHandlerCollection {
public:
    /// @param bus  *not owned*, must outlive the collection.
    explicit MessageHandlerCollection(IMsgBus* bus);
    MessageHandlerCollection(const MessageHandlerCollection&) = delete;
    MessageHandlerCollection& operator=(const MessageHandlerCollection&) = delete;

    /// Once it has returned no handler runs any more, except for one that calls it. If the bus fails to
    /// unregister a handler (`MsgBus` never does), that one and those after it stay registered, and are not
    /// deleted.
    ~MessageHandlerCollection();

    /// Registers the handler; *takes ownership*, also when this throws.
    void AddHandler(const std::string& interface, const std::string& member, IMessageHandler* handler);

private:
    IMsgBus* _bus;
    std::vector<std::unique_ptr<IMessageHandler>> _handlers;
};

}  // namespace zarip::msgbus
