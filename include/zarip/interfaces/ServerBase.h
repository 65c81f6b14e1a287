// SPDX-License-Identifier: MIT

#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <zarip/interfaces/InterfaceServer.h>
#include <zarip/interfaces/ServiceDescription.h>

namespace zarip::msgbus {
class IMessageHandler;
}

namespace zarip::interfaces::internal {

/// What all instances of `ServiceServer` share; not for programs. *One thread at a time.*
class ZARIP_EXPORT ServerBase : public InterfaceServer {
public:
    /// Works out a signature; called only if somebody asks for it.
    using Signature = std::string (*)();

    struct Member {
        const char* name;
        bool isSignal;
        Signature in;   ///< of a call or a signal
        Signature out;  ///< of the reply; null for a signal and for a one-way member
    };

    ~ServerBase() override;

    const ServiceDescription& GetDescription() const;
    const std::vector<Member>& GetMembers() const;

protected:
    /// Claims the name, then describes the object.
    ServerBase(msgbus::IMsgBus* bus, const ServiceDescription& service);

    /// @param handler  *takes ownership*.
    void AddMember(const Member& member, msgbus::IMessageHandler* handler);
    /// @param detach  ends the forwarding of the event.
    void AddSignal(const Member& signal, std::function<void()> detach);

    void DetachFromEvents();
    /// None of the handlers runs afterwards.
    void EndHandlers();

private:
    struct State;
    std::unique_ptr<State> _state;
};

}  // namespace zarip::interfaces::internal
