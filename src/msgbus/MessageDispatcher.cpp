// SPDX-License-Identifier: MIT

#include "msgbus/MessageDispatcher.h"

#include <cxxabi.h>

#include <algorithm>
#include <exception>
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
    Registrations added;
    added.push_back({Key(interface, member), std::move(entry)});
    const osa::MutexAutoLock lock(&_handlerMapMutex);
    Registrations& registrations = _handlers[added.front().place];
    registrations.splice(registrations.end(), added);
}

MessageDispatcher::Registrations MessageDispatcher::Remove(const IMessageHandler* handler) {
    Registrations removed;
    {
        const osa::MutexAutoLock lock(&_handlerMapMutex);
        for (auto place = _handlers.begin(); place != _handlers.end();) {
            Registrations& registrations = place->second;
            for (auto next = registrations.begin(); next != registrations.end();) {
                const auto registration = next++;
                if (registration->entry->handler == handler) {
                    registration->entry->removed = true;
                    removed.splice(removed.end(), registrations, registration);
                }
            }
            place = registrations.empty() ? _handlers.erase(place) : std::next(place);
        }
    }
    for (const Registration& registration : removed) {
        const osa::MutexAutoLock untilItHasRun(&registration.entry->running);
    }
    return removed;
}

MessageDispatcher::Entries MessageDispatcher::FindTakers(std::string_view interface, std::string_view member,
                                                         IMessageHandler::Kind kind) const {
    Entries takers;
    const osa::MutexAutoLock lock(&_handlerMapMutex);
    const auto place = _handlers.find(std::pair(interface, member));
    if (place != _handlers.end()) {
        for (const Registration& registration : place->second) {
            if ((registration.entry->handler->GetKind() & kind) != 0) {
                takers.push_back(registration.entry);
                if (kind == IMessageHandler::kMethodCalls) {
                    break;
                }
            }
        }
    }
    return takers;
}

bool MessageDispatcher::HasTaker(std::string_view interface, std::string_view member,
                                 IMessageHandler::Kind kind) const {
    const osa::MutexAutoLock lock(&_handlerMapMutex);
    const auto place = _handlers.find(std::pair(interface, member));
    return place != _handlers.end() &&
           std::any_of(place->second.begin(), place->second.end(), [kind](const Registration& registration) {
               return (registration.entry->handler->GetKind() & kind) != 0;
           });
}

std::string MessageDispatcher::FindInterface(std::string_view member) const {
    const osa::MutexAutoLock lock(&_handlerMapMutex);
    std::string interface;
    for (auto place = _handlers.lower_bound(std::pair(std::string_view(), member));
         place != _handlers.end() && place->first.second == member; ++place) {
        const Registrations& registrations = place->second;
        if (std::any_of(registrations.begin(), registrations.end(), [](const Registration& registration) {
                return (registration.entry->handler->GetKind() & IMessageHandler::kMethodCalls) != 0;
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
        taken = RunHandler(*entry, message, isSignal, bus) || taken;
    }
    return taken;
}

bool MessageDispatcher::RunHandler(Entry& entry, const MsgBusMsg& message, bool isSignal,
                                   IMsgBus& bus) const {
    const osa::MutexAutoLock running(&entry.running);
    if (entry.removed) {
        return false;
    }
    try {
        entry.handler->HandleMessage(message, bus);
    } catch (const abi::__forced_unwind&) {
        throw;  // pthread_exit
    } catch (...) {
        ReportFailure(message, isSignal, bus, osa::DescribeCaught());
    }
    return true;
}

void MessageDispatcher::ReportFailure(const MsgBusMsg& message, bool isSignal, IMsgBus& bus,
                                      const char* text) const {
    _logger->Error("MessageHandler threw exception: %s", text);
    if (!isSignal && message.IsExpectingResponse()) {
        const std::unique_ptr<MsgBusMsg> error(message.MakeErrorMsg(text));
        bus.SendReply(*error);
    }
}

}  // namespace zarip::msgbus
