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

/// The device's networking service, "com.brelk.networkingV2": reads and changes network settings, each of
/// them one string, and tells what changed.
///
/// A service derives from it, overrides the members it serves and hands itself to `CreateServer`; a member
/// that it does not override throws `osa::Exception` "unimplemented", also across the bus. Its members are
/// then *called on MsgBusListenThread*, one at a time. Every other process calls the same members on what
/// `CreateClient` returns. There they wait up to `_timeout` for the reply and throw what
/// `IMsgBus::SendMsgWaitForReply` throws.
///
/// The notation of the strings is the service's.
class ZARIP_EXPORT INetworkingV2Provider {
public:
    INetworkingV2Provider();
    INetworkingV2Provider(const INetworkingV2Provider&) = delete;
    INetworkingV2Provider& operator=(const INetworkingV2Provider&) = delete;
    virtual ~INetworkingV2Provider();

    virtual std::string Get(const std::string& query);
    virtual std::string Set(const std::string& settings);

    /// How long a client waits for a reply, in milliseconds: 5000 unless the caller changes it.
    int _timeout;

    /// What changed. Fired by the service on any thread, and in clients when the signal arrives, on
    /// MsgBusListenThread.
    core::Event1<std::string> IPv4AddressChange;
    core::Event1<unsigned int> MTUChange;
    core::Event1<std::string> HostnameChange;
    core::Event1<std::string> IPv6AddressAdded;
    core::Event1<std::string> IPv6AddressRemoved;
    core::Event1<unsigned int> NTPConfigChanged;
    core::Event1<unsigned int> LighttpdConfigChanged;

    /// A proxy to the service, *caller owns*. @param bus  *not owned*, must outlive the proxy.
    static INetworkingV2Provider* CreateClient(msgbus::IMsgBus* bus);

    /// Serves an implementation on the bus, *caller owns*. Both arguments are *not owned* and must outlive
    /// the server. Throws what `IMsgBus::RegisterDestinationName` throws. Call `IMsgBus::StartServer` after
    /// it.
    static InterfaceServer* CreateServer(msgbus::IMsgBus* bus, INetworkingV2Provider* implementation);
};

}  // namespace zarip::interfaces
