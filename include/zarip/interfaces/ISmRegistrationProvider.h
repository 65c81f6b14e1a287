// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Export.h>

namespace zarip::msgbus {
class IMsgBus;
}

namespace zarip::interfaces {

class InterfaceServer;

/// The registration service, "com.brelk.mirase.smRegistration". It registers the device with the manager of a
/// video-management system and keeps the two synchronised.
///
/// A service derives from this class, overrides the members that it serves, and passes itself to
/// `CreateServer`. Its members are then *called on MsgBusListenThread*, one at a time. A member that is not
/// overridden throws `osa::Exception` "unimplemented", also for callers on the bus. Other processes call the
/// same members on the object that `CreateClient` returns. There the two members with results wait up to
/// `_timeout` for the reply and throw what `IMsgBus::SendMsgWaitForReply` throws. The other three are
/// one-way: they return at once and report no errors, even if the service is not running.
///
/// The service defines the content of the string and the effects of the resets.
class ZARIP_EXPORT ISmRegistrationProvider {
public:
    ISmRegistrationProvider();
    ISmRegistrationProvider(const ISmRegistrationProvider&) = delete;
    ISmRegistrationProvider& operator=(const ISmRegistrationProvider&) = delete;
    virtual ~ISmRegistrationProvider();

    virtual bool IsRegistered();
    virtual bool IsSynced();
    virtual void ResetSecurity();
    virtual void ResetSynced();
    virtual void ForceRegister(const std::string& manager);

    /// The time for which a client waits for a reply, in milliseconds. It is 5000 unless the caller changes
    /// it.
    int _timeout;

    /// Makes a proxy of the service, which the *caller owns*.
    /// @param bus  *not owned*, must outlive the proxy.
    static ISmRegistrationProvider* CreateClient(msgbus::IMsgBus* bus);

    /// Makes a server that serves an implementation on the bus; the *caller owns* it. Both arguments are *not
    /// owned* and must outlive the server. Throws what `IMsgBus::RegisterDestinationName` throws. Call
    /// `IMsgBus::StartServer` afterwards.
    static InterfaceServer* CreateServer(msgbus::IMsgBus* bus, ISmRegistrationProvider* implementation);
};

}  // namespace zarip::interfaces
