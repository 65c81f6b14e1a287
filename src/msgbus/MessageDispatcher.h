// SPDX-License-Identifier: MIT

#pragma once

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zarip/msgbus/IMessageHandler.h"
#include "zarip/osa/Mutex.h"

namespace zarip::core {
class Logger;
}

namespace zarip::msgbus {

/// Maps interface and member to handlers. *Thread-safe*.
///
/// `_handlerMapMutex` guards the map and is never held while a handler runs. Each entry has a recursive mutex
/// of its own, which is held while its handler runs: `Remove` takes it to wait for that handler, and for no
/// other. A handler that removes itself owns the mutex already and does not wait.
class MessageDispatcher {
public:
    /// Interface and member.
    using Key = std::pair<std::string, std::string>;

    explicit MessageDispatcher(core::Logger* logger);

    /// @param handler  *not owned*.
    void Add(const std::string& interface, const std::string& member, IMessageHandler* handler);

    /// A handler in one place.
    struct Registration;
    using Registrations = std::list<Registration>;

    /// Removes the handler wherever it is registered, and returns where that was. Waits until it does not
    /// run, unless the caller is the handler. Needs no memory, so that a handler can always be destroyed.
    Registrations Remove(const IMessageHandler* handler);

    /// Whether a handler takes such a message.
    bool Takes(std::string_view interface, std::string_view member, IMessageHandler::Kind kind) const;

    /// The one interface that has a handler for calls of this member; empty unless exactly one has.
    std::string FindInterface(std::string_view member) const;

    /// Runs the handlers of a message: all that take signals for a signal, the first that takes calls for a
    /// call. What a handler throws is logged and answers a call that expects a reply. False when nobody takes
    /// the message.
    bool Dispatch(const MsgBusMsg& message, std::string_view interface, std::string_view member,
                  bool isSignal, IMsgBus& bus);

private:
    struct Entry {
        IMessageHandler* handler;
        std::atomic<bool> removed{false};
        osa::Mutex running{"MessageHandler"};
    };
    using Entries = std::vector<std::shared_ptr<Entry>>;
    struct Less {
        using is_transparent = void;
        template <class A, class B>
        bool operator()(const A& a, const B& b) const {
            // Members differ more often than interfaces.
            const int order = std::string_view(a.second).compare(b.second);
            return order != 0 ? order < 0 : std::string_view(a.first) < std::string_view(b.first);
        }
    };

    Entries FindTakers(std::string_view interface, std::string_view member, IMessageHandler::Kind kind) const;
    bool Run(Entry& entry, const MsgBusMsg& message, bool isSignal, IMsgBus& bus) const;
    void Fail(const MsgBusMsg& message, bool isSignal, IMsgBus& bus, const char* text) const;

    core::Logger* _logger;
    mutable osa::Mutex _handlerMapMutex{"MessageDispatcher::_handlerMapMutex"};
    std::map<Key, Registrations, Less> _handlers ZARIP_GUARDED_BY(_handlerMapMutex);
};

struct MessageDispatcher::Registration {
    Key place;
    std::shared_ptr<Entry> entry;
};

}  // namespace zarip::msgbus
