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

/// The device's service directory, "com.brelk.brelkServices". It lists the services that the device offers
/// and its cameras, and reports changes.
///
/// A service derives from this class, overrides the members that it serves, and passes itself to
/// `CreateServer`. Its members are then *called on MsgBusListenThread*, one at a time. A member that is not
/// overridden throws `osa::Exception` "unimplemented", also for callers on the bus. Other processes call the
/// same members on the object that `CreateClient` returns. There they wait up to `_timeout` for the reply and
/// throw what `IMsgBus::SendMsgWaitForReply` throws.
///
/// The service defines the device types and the notation of the lists of services.
class ZARIP_EXPORT IBrelkServicesProvider {
public:
    IBrelkServicesProvider();
    IBrelkServicesProvider(const IBrelkServicesProvider&) = delete;
    IBrelkServicesProvider& operator=(const IBrelkServicesProvider&) = delete;
    virtual ~IBrelkServicesProvider();

    virtual std::string GetAllServices() const;
    virtual std::string GetServicesByDeviceType(const std::string& deviceType) const;
    virtual std::vector<std::string> GetCameraDeviceNames() const;

    /// The time for which a client waits for a reply, in milliseconds. It is 5000 unless the caller changes
    /// it.
    int _timeout;

    /// The directory has changed. The service fires it on any thread. In clients it is fired on
    /// MsgBusListenThread when the signal arrives.
    core::Event0 StateChange;

    /// Makes a proxy of the service, which the *caller owns*.
    /// @param bus  *not owned*, must outlive the proxy.
    static IBrelkServicesProvider* CreateClient(msgbus::IMsgBus* bus);

    /// Makes a server that serves an implementation on the bus; the *caller owns* it. Both arguments are *not
    /// owned* and must outlive the server. Throws what `IMsgBus::RegisterDestinationName` throws. Call
    /// `IMsgBus::StartServer` afterwards.
    static InterfaceServer* CreateServer(msgbus::IMsgBus* bus, IBrelkServicesProvider* implementation);
};

}  // namespace zarip::interfaces
