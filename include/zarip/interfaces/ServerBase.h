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

/// The common part of all instances of `ServiceServer`; programs do not use it. *One thread at a time.*
class ZARIP_EXPORT ServerBase : public InterfaceServer {
public:
    /// Computes a signature. It is only called when the signature is needed.
    using Signature = std::string (*)();

    struct Member {
        const char* name;
        bool isSignal;
        Signature in;   ///< the arguments of a call or a signal
        Signature out;  ///< the results; null for a signal and for a one-way member
    };

    ~ServerBase() override;

    const ServiceDescription& GetDescription() const;
    const std::vector<Member>& GetMembers() const;

protected:
    /// Acquires the name, then describes the object.
    ServerBase(msgbus::IMsgBus* bus, const ServiceDescription& service);

    /// @param handler  *takes ownership*.
    void AddMember(const Member& member, msgbus::IMessageHandler* handler);
    /// @param detach  is called once to end the forwarding of the event.
    void AddSignal(const Member& signal, std::function<void()> detach);

    void DetachFromEvents();
    /// Unregisters the handlers. None of them runs afterwards.
    void EndHandlers();

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::interfaces::internal
