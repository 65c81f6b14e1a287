// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Export.h>

namespace zarip::msgbus {
class IMsgBus;
}

namespace zarip::interfaces {

class InterfaceServer;

/// The service that enrols the device with the manager of a video-management system and keeps the two in
/// step, "com.brelk.mirase.smRegistration".
///
/// A service derives from it, overrides the members it serves and hands itself to `CreateServer`; a member
/// that it does not override throws `osa::Exception` "unimplemented", also across the bus. Its members are
/// then *called on MsgBusListenThread*, one at a time. Every other process calls the same members on what
/// `CreateClient` returns. There the two questions wait up to `_timeout` for the reply and throw what
/// `IMsgBus::SendMsgWaitForReply` throws; the other three are one-way, return at once and report nothing,
/// also while no service runs.
///
/// What the string holds and what a reset clears is the service's.
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

    /// How long a client waits for a reply, in milliseconds: 5000 unless the caller changes it.
    int _timeout;

    /// A proxy to the service, *caller owns*. @param bus  *not owned*, must outlive the proxy.
    static ISmRegistrationProvider* CreateClient(msgbus::IMsgBus* bus);

    /// Serves an implementation on the bus, *caller owns*. Both arguments are *not owned* and must outlive
    /// the server. Throws what `IMsgBus::RegisterDestinationName` throws. Call `IMsgBus::StartServer` after
    /// it.
    static InterfaceServer* CreateServer(msgbus::IMsgBus* bus, ISmRegistrationProvider* implementation);
};

}  // namespace zarip::interfaces
