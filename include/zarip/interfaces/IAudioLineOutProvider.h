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

/// The service that owns the audio line output, "com.brelk.audio.lineout": a client connects, keeps its
/// connection alive, disconnects, and asks who is connected.
///
/// A service derives from it, overrides the members it serves and hands itself to `CreateServer`; a member
/// that it does not override throws `osa::Exception` "unimplemented", also across the bus. Its members are
/// then *called on MsgBusListenThread*, one at a time. Every other process calls the same members on what
/// `CreateClient` returns. There they wait up to 5000 milliseconds for the reply and throw what
/// `IMsgBus::SendMsgWaitForReply` throws.
///
/// The meaning of numbers and strings is the service's.
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

    /// A message holds 127 of them; a service that returns more answers "MsgBusMsg: too many arguments!".
    virtual std::vector<QueryResult> Query();

    // Deliberately without `_timeout`: the proxy keeps it, so that the object of a service ends here.

    /// A proxy to the service, *caller owns*. @param bus  *not owned*, must outlive the proxy.
    static IAudioLineOutProvider* CreateClient(msgbus::IMsgBus* bus);

    /// Serves an implementation on the bus, *caller owns*. Both arguments are *not owned* and must outlive
    /// the server. Throws what `IMsgBus::RegisterDestinationName` throws. Call `IMsgBus::StartServer` after
    /// it.
    static InterfaceServer* CreateServer(msgbus::IMsgBus* bus, IAudioLineOutProvider* implementation);
};

}  // namespace zarip::interfaces
