// SPDX-License-Identifier: MIT

#include "zarip/interfaces/ServerBase.h"

#include <optional>
#include <utility>

#include "zarip/msgbus/DescribedObject.h"
#include "zarip/msgbus/MessageHandlerCollection.h"

namespace zarip::interfaces::internal {

struct ServerBase::State {
    State(msgbus::IMsgBus* bus, const ServiceDescription& described)
        : service(described),
          handlers(bus),
          description(bus, described.path, described.name, described.xml) {}

    ServiceDescription service;
    std::vector<Member> members;
    std::vector<std::function<void()>> detachers;
    std::optional<msgbus::MessageHandlerCollection> handlers;
    msgbus::DescribedObject description;
};

ServerBase::ServerBase(msgbus::IMsgBus* bus, const ServiceDescription& service)
    : InterfaceServer(bus, service.name), _state(std::make_unique<State>(bus, service)) {}

ServerBase::~ServerBase() = default;

const ServiceDescription& ServerBase::GetDescription() const {
    return _state->service;
}

const std::vector<ServerBase::Member>& ServerBase::GetMembers() const {
    return _state->members;
}

void ServerBase::AddMember(const Member& member, msgbus::IMessageHandler* handler) {
    _state->handlers->AddHandler(_state->service.name, member.name, handler);
    _state->members.push_back(member);
}

void ServerBase::AddSignal(const Member& signal, std::function<void()> detach) {
    _state->detachers.push_back(std::move(detach));
    _state->members.push_back(signal);
}

void ServerBase::DetachFromEvents() {
    for (const auto& detach : _state->detachers) {
        detach();
    }
    _state->detachers.clear();
}

void ServerBase::EndHandlers() {
    _state->handlers.reset();
}

}  // namespace zarip::interfaces::internal
