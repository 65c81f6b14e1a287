// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <vector>

#include <zarip/core/Event.h>
#include <zarip/osa/Export.h>

namespace zarip::msgbus {
class IMsgBus;
}

namespace zarip::interfaces {

class InterfaceServer;

/// The device's service directory, "com.brelk.brelkServices": lists the services that the device offers and
/// its cameras, and tells when that changed.
///
/// A service derives from it, overrides the members it serves and hands itself to `CreateServer`; a member
/// that it does not override throws `osa::Exception` "unimplemented", also across the bus. Its members are
/// then *called on MsgBusListenThread*, one at a time. Every other process calls the same members on what
/// `CreateClient` returns. There they wait up to `_timeout` for the reply and throw what
/// `IMsgBus::SendMsgWaitForReply` throws.
///
/// The notation of the lists of services and the device types are the service's.
class ZARIP_EXPORT IBrelkServicesProvider {
public:
    IBrelkServicesProvider();
    IBrelkServicesProvider(const IBrelkServicesProvider&) = delete;
    IBrelkServicesProvider& operator=(const IBrelkServicesProvider&) = delete;
    virtual ~IBrelkServicesProvider();

    virtual std::string GetAllServices() const;
    virtual std::string GetServicesByDeviceType(const std::string& deviceType) const;
    virtual std::vector<std::string> GetCameraDeviceNames() const;

    /// How long a client waits for a reply, in milliseconds: 5000 unless the caller changes it.
    int _timeout;

    /// The directory changed. Fired by the service on any thread, and in clients when the signal arrives, on
    /// MsgBusListenThread.
    core::Event0 StateChange;

    /// A proxy to the service, *caller owns*. @param bus  *not owned*, must outlive the proxy.
    static IBrelkServicesProvider* CreateClient(msgbus::IMsgBus* bus);

    /// Serves an implementation on the bus, *caller owns*. Both arguments are *not owned* and must outlive
    /// the server. Throws what `IMsgBus::RegisterDestinationName` throws. Call `IMsgBus::StartServer` after
    /// it.
    static InterfaceServer* CreateServer(msgbus::IMsgBus* bus, IBrelkServicesProvider* implementation);
};

}  // namespace zarip::interfaces
