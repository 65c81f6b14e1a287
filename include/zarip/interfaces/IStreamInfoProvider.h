// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Export.h>

namespace zarip::msgbus {
class IMsgBus;
}

namespace zarip::interfaces {

class InterfaceServer;

/// The service "com.brelk.video.streamInfo". It reports how many connections the video streams have.
///
/// A service derives from this class, overrides the members that it serves, and passes itself to
/// `CreateServer`. Its members are then *called on MsgBusListenThread*, one at a time. A member that is not
/// overridden throws `osa::Exception` "unimplemented", also for callers on the bus. Other processes call the
/// same members on the object that `CreateClient` returns. There they wait up to `_timeout` for the reply and
/// throw what `IMsgBus::SendMsgWaitForReply` throws.
///
/// The service defines the names of the streams and what counts as a connection.
class ZARIP_EXPORT IStreamInfoProvider {
public:
    IStreamInfoProvider();
    IStreamInfoProvider(const IStreamInfoProvider&) = delete;
    IStreamInfoProvider& operator=(const IStreamInfoProvider&) = delete;
    virtual ~IStreamInfoProvider();

    virtual int GetCurrentVideoConnections(const std::string& stream) const;
    virtual int GetGuaranteedVideoConnections(const std::string& stream) const;

    /// The time for which a client waits for a reply, in milliseconds. It is 5000 unless the caller changes
    /// it.
    int _timeout;

    /// Makes a proxy of the service, which the *caller owns*.
    /// @param bus  *not owned*, must outlive the proxy.
    static IStreamInfoProvider* CreateClient(msgbus::IMsgBus* bus);

    /// Makes a server that serves an implementation on the bus; the *caller owns* it. Both arguments are *not
    /// owned* and must outlive the server. Throws what `IMsgBus::RegisterDestinationName` throws. Call
    /// `IMsgBus::StartServer` afterwards.
    static InterfaceServer* CreateServer(msgbus::IMsgBus* bus, IStreamInfoProvider* implementation);
};

}  // namespace zarip::interfaces
