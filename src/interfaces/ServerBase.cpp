// SPDX-License-Identifier: MIT

#include "zarip/interfaces/ServerBase.h"

#include <optional>
#include <utility>

#include "zarip/msgbus/DescribedObject.h"
#include "zarip/msgbus/MessageHandlerCollection.h"

namespace zarip::interfaces::internal {

struct ServerBase::Impl {
    Impl(msgbus::IMsgBus* bus, const ServiceDescription& described)
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
    : InterfaceServer(bus, service.name), _impl(std::make_unique<Impl>(bus, service)) {}

ServerBase::~ServerBase() = default;

const ServiceDescription& ServerBase::GetDescription() const {
    return _impl->service;
}

const std::vector<ServerBase::Member>& ServerBase::GetMembers() const {
    return _impl->members;
}

void ServerBase::AddMember(const Member& member, msgbus::IMessageHandler* handler) {
    _impl->handlers->AddHandler(_impl->service.name, member.name, handler);
    _impl->members.push_back(member);
}

void ServerBase::AddSignal(const Member& signal, std::function<void()> detach) {
    _impl->detachers.push_back(std::move(detach));
    _impl->members.push_back(signal);
}

void ServerBase::DetachFromEvents() {
    for (const auto& detach : _impl->detachers) {
        detach();
    }
    _impl->detachers.clear();
}

void ServerBase::EndHandlers() {
    _impl->handlers.reset();
}

}  // namespace zarip::interfaces::internal
