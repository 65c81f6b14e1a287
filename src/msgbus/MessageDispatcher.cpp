// SPDX-License-Identifier: MIT

#include "msgbus/MessageDispatcher.h"

#include <cxxabi.h>

#include <algorithm>
#include <iterator>

#include "osa/DescribeCaught.h"
#include "zarip/core/Logger.h"
#include "zarip/msgbus/IMsgBus.h"
#include "zarip/msgbus/MsgBusMsg.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::msgbus {

MessageDispatcher::MessageDispatcher(core::Logger* logger) : _logger(logger) {}

void MessageDispatcher::Add(const std::string& interface, const std::string& member,
                            IMessageHandler* handler) {
    auto entry = std::make_shared<Entry>();
    entry->handler = handler;
    const osa::MutexAutoLock lock(&_handlerMapMutex);
    _handlers[Key(interface, member)].push_back(std::move(entry));
}

std::vector<MessageDispatcher::Key> MessageDispatcher::Remove(const IMessageHandler* handler) {
    std::vector<Key> places;
    Entries removed;
    {
        const osa::MutexAutoLock lock(&_handlerMapMutex);
        for (auto place = _handlers.begin(); place != _handlers.end();) {
            Entries& entries = place->second;
            const auto first =
                std::stable_partition(entries.begin(), entries.end(),
                                      [handler](const auto& entry) { return entry->handler != handler; });
            for (auto entry = first; entry != entries.end(); ++entry) {
                (*entry)->removed = true;
                places.push_back(place->first);
            }
            std::move(first, entries.end(), std::back_inserter(removed));
            entries.erase(first, entries.end());
            place = entries.empty() ? _handlers.erase(place) : std::next(place);
        }
    }
    for (const auto& entry : removed) {
        const osa::MutexAutoLock untilItHasRun(&entry->running);
    }
    return places;
}

MessageDispatcher::Entries MessageDispatcher::FindTakers(std::string_view interface, std::string_view member,
                                                         IMessageHandler::Kind kind) const {
    Entries takers;
    const osa::MutexAutoLock lock(&_handlerMapMutex);
    const auto place = _handlers.find(std::pair(interface, member));
    if (place != _handlers.end()) {
        for (const auto& entry : place->second) {
            if ((entry->handler->GetKind() & kind) != 0) {
                takers.push_back(entry);
                if (kind == IMessageHandler::kMethodCalls) {
                    break;
                }
            }
        }
    }
    return takers;
}

bool MessageDispatcher::Takes(std::string_view interface, std::string_view member,
                              IMessageHandler::Kind kind) const {
    const osa::MutexAutoLock lock(&_handlerMapMutex);
    const auto place = _handlers.find(std::pair(interface, member));
    return place != _handlers.end() &&
           std::any_of(place->second.begin(), place->second.end(),
                       [kind](const auto& entry) { return (entry->handler->GetKind() & kind) != 0; });
}

std::string MessageDispatcher::FindInterface(std::string_view member) const {
    const osa::MutexAutoLock lock(&_handlerMapMutex);
    std::string interface;
    for (auto place = _handlers.lower_bound(std::pair(std::string_view(), member));
         place != _handlers.end() && place->first.second == member; ++place) {
        const Entries& entries = place->second;
        if (std::any_of(entries.begin(), entries.end(), [](const auto& entry) {
                return (entry->handler->GetKind() & IMessageHandler::kMethodCalls) != 0;
            })) {
            if (!interface.empty()) {
                return {};
            }
            interface = place->first.first;
        }
    }
    return interface;
}

bool MessageDispatcher::Dispatch(const MsgBusMsg& message, std::string_view interface,
                                 std::string_view member, bool isSignal, IMsgBus& bus) {
    const auto kind = isSignal ? IMessageHandler::kSignals : IMessageHandler::kMethodCalls;
    bool taken = false;
    for (const auto& entry : FindTakers(interface, member, kind)) {
        taken = Run(*entry, message, isSignal, bus) || taken;
    }
    return taken;
}

bool MessageDispatcher::Run(Entry& entry, const MsgBusMsg& message, bool isSignal, IMsgBus& bus) const {
    const osa::MutexAutoLock running(&entry.running);
    if (entry.removed) {
        return false;
    }
    try {
        entry.handler->HandleMessage(message, bus);
    } catch (const abi::__forced_unwind&) {
        throw;  // pthread_exit
    } catch (...) {
        Fail(message, isSignal, bus, osa::DescribeCaught());
    }
    return true;
}

void MessageDispatcher::Fail(const MsgBusMsg& message, bool isSignal, IMsgBus& bus, const char* text) const {
    _logger->Error("MessageHandler threw exception: %s", text);
    if (!isSignal && message.IsExpectingResponse()) {
        const std::unique_ptr<MsgBusMsg> error(message.MakeErrorMsg(text));
        bus.SendReply(*error);
    }
}

}  // namespace zarip::msgbus
