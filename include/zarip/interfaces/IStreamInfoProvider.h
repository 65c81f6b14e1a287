// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Export.h>

namespace zarip::msgbus {
class IMsgBus;
}

namespace zarip::interfaces {

class InterfaceServer;

/// The video streaming service's counts of connections, "com.brelk.video.streamInfo".
///
/// A service derives from it, overrides the members it serves and hands itself to `CreateServer`; a member
/// that it does not override throws `osa::Exception` "unimplemented", also across the bus. Its members are
/// then *called on MsgBusListenThread*, one at a time. Every other process calls the same members on what
/// `CreateClient` returns. There they wait up to `_timeout` for the reply and throw what
/// `IMsgBus::SendMsgWaitForReply` throws.
///
/// What the string names and what counts as a connection is the service's.
class ZARIP_EXPORT IStreamInfoProvider {
public:
    IStreamInfoProvider();
    IStreamInfoProvider(const IStreamInfoProvider&) = delete;
    IStreamInfoProvider& operator=(const IStreamInfoProvider&) = delete;
    virtual ~IStreamInfoProvider();

    virtual int GetCurrentVideoConnections(const std::string& stream) const;
    virtual int GetGuaranteedVideoConnections(const std::string& stream) const;

    /// How long a client waits for a reply, in milliseconds: 5000 unless the caller changes it.
    int _timeout;

    /// A proxy to the service, *caller owns*. @param bus  *not owned*, must outlive the proxy.
    static IStreamInfoProvider* CreateClient(msgbus::IMsgBus* bus);

    /// Serves an implementation on the bus, *caller owns*. Both arguments are *not owned* and must outlive
    /// the server. Throws what `IMsgBus::RegisterDestinationName` throws. Call `IMsgBus::StartServer` after
    /// it.
    static InterfaceServer* CreateServer(msgbus::IMsgBus* bus, IStreamInfoProvider* implementation);
};

}  // namespace zarip::interfaces
