// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <vector>

#include <zarip/osa/Export.h>

namespace zarip::msgbus {
class IMsgBus;
}

namespace zarip::interfaces {

class InterfaceServer;

/// The service of the audio line output, "com.brelk.audio.lineout". Clients connect, keep their connections
/// alive, disconnect, and ask which clients are connected.
///
/// A service derives from this class, overrides the members that it serves, and passes itself to
/// `CreateServer`. Its members are then *called on MsgBusListenThread*, one at a time. A member that is not
/// overridden throws `osa::Exception` "unimplemented", also for callers on the bus. Other processes call the
/// same members on the object that `CreateClient` returns. There they wait up to 5000 milliseconds for the
/// reply and throw what `IMsgBus::SendMsgWaitForReply` throws.
///
/// The service defines the meaning of the numbers and strings.
class ZARIP_EXPORT IAudioLineOutProvider {
public:
    struct ConnectResult {
        std::string status;
        int connection = 0;
    };
    struct QueryResult {
        std::string client;
        int connection = 0;
    };

    IAudioLineOutProvider();
    IAudioLineOutProvider(const IAudioLineOutProvider&) = delete;
    IAudioLineOutProvider& operator=(const IAudioLineOutProvider&) = delete;
    virtual ~IAudioLineOutProvider();

    virtual ConnectResult Connect(const std::string& client, int first, int second);
    virtual std::string Disconnect(int connection);
    virtual std::string KeepAlive(int connection);

    /// Returns the connections. A message can hold 127 of them; if a service returns more, the call fails
    /// with "MsgBusMsg: too many arguments!".
    virtual std::vector<QueryResult> Query();

    // Deliberate: there is no `_timeout` here. The proxy has it, so that the object of a service ends here.

    /// Makes a proxy of the service, which the *caller owns*.
    /// @param bus  *not owned*, must outlive the proxy.
    static IAudioLineOutProvider* CreateClient(msgbus::IMsgBus* bus);

    /// Makes a server that serves an implementation on the bus; the *caller owns* it. Both arguments are *not
    /// owned* and must outlive the server. Throws what `IMsgBus::RegisterDestinationName` throws. Call
    /// `IMsgBus::StartServer` afterwards.
    static InterfaceServer* CreateServer(msgbus::IMsgBus* bus, IAudioLineOutProvider* implementation);
};

}  // namespace zarip::interfaces
