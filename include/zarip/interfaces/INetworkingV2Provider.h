// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/core/Event.h>
#include <zarip/osa/Export.h>

namespace zarip::msgbus {
class IMsgBus;
}

namespace zarip::interfaces {

class InterfaceServer;

/// The device's networking service, "com.brelk.networkingV2". It reads and changes the network settings,
/// which are strings, and reports changes.
///
/// A service derives from this class, overrides the members that it serves, and passes itself to
/// `CreateServer`. Its members are then *called on MsgBusListenThread*, one at a time. A member that is not
/// overridden throws `osa::Exception` "unimplemented", also for callers on the bus. Other processes call the
/// same members on the object that `CreateClient` returns. There they wait up to `_timeout` for the reply and
/// throw what `IMsgBus::SendMsgWaitForReply` throws.
///
/// The service defines the notation of the strings.
class ZARIP_EXPORT INetworkingV2Provider {
public:
    INetworkingV2Provider();
    INetworkingV2Provider(const INetworkingV2Provider&) = delete;
    INetworkingV2Provider& operator=(const INetworkingV2Provider&) = delete;
    virtual ~INetworkingV2Provider();

    virtual std::string Get(const std::string& query);
    virtual std::string Set(const std::string& settings);

    /// The time for which a client waits for a reply, in milliseconds. It is 5000 unless the caller changes
    /// it.
    int _timeout;

    /// These events report changes. The service fires them on any thread. In clients they are fired on
    /// MsgBusListenThread when the signal arrives.
    core::Event1<std::string> IPv4AddressChange;
    core::Event1<unsigned int> MTUChange;
    core::Event1<std::string> HostnameChange;
    core::Event1<std::string> IPv6AddressAdded;
    core::Event1<std::string> IPv6AddressRemoved;
    core::Event1<unsigned int> NTPConfigChanged;
    core::Event1<unsigned int> LighttpdConfigChanged;

    /// Makes a proxy of the service, which the *caller owns*.
    /// @param bus  *not owned*, must outlive the proxy.
    static INetworkingV2Provider* CreateClient(msgbus::IMsgBus* bus);

    /// Makes a server that serves an implementation on the bus; the *caller owns* it. Both arguments are *not
    /// owned* and must outlive the server. Throws what `IMsgBus::RegisterDestinationName` throws. Call
    /// `IMsgBus::StartServer` afterwards.
    static InterfaceServer* CreateServer(msgbus::IMsgBus* bus, INetworkingV2Provider* implementation);
};

}  // namespace zarip::interfaces
