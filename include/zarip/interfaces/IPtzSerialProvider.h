// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>

namespace zarip::msgbus {
class IMsgBus;
}

namespace zarip::interfaces {

class InterfaceServer;

/// The service of the serial line to a pan-tilt-zoom unit, "com.brelk.hardware.ptzSerial". It reads and
/// changes the settings of the line, and switches the polling of the unit on and off. Changing the settings
/// also initialises the line.
///
/// A service derives from this class, overrides the members that it serves, and passes itself to
/// `CreateServer`. Its members are then *called on MsgBusListenThread*, one at a time. A member that is not
/// overridden throws `osa::Exception` "unimplemented", also for callers on the bus. Other processes call the
/// same members on the object that `CreateClient` returns. There the two members with results wait up to
/// `_timeout` for the reply and throw what `IMsgBus::SendMsgWaitForReply` throws. The setters are one-way:
/// they return at once and report no errors, even if the service is not running.
///
/// The service defines the meaning of the four settings.
class ZARIP_EXPORT IPtzSerialProvider {
public:
    IPtzSerialProvider();
    IPtzSerialProvider(const IPtzSerialProvider&) = delete;
    IPtzSerialProvider& operator=(const IPtzSerialProvider&) = delete;
    virtual ~IPtzSerialProvider();

    virtual void SetPtzSerialSettingsAndInitialize(unsigned int speed, int framing, unsigned int address,
                                                   bool flag);

    /// Returns the speed.
    /// @param framing, address, flag  are set from the reply.
    virtual unsigned int GetPtzSerialSettingsAndInitialize(int& framing, unsigned int& address, bool& flag);
    virtual void SetPtzPollingState(bool on);
    virtual bool GetPtzPollingState();

    /// The time for which a client waits for a reply, in milliseconds. It is 5000 unless the caller changes
    /// it.
    int _timeout;

    /// Makes a proxy of the service, which the *caller owns*.
    /// @param bus  *not owned*, must outlive the proxy.
    static IPtzSerialProvider* CreateClient(msgbus::IMsgBus* bus);

    /// Makes a server that serves an implementation on the bus; the *caller owns* it. Both arguments are *not
    /// owned* and must outlive the server. Throws what `IMsgBus::RegisterDestinationName` throws. Call
    /// `IMsgBus::StartServer` afterwards.
    static InterfaceServer* CreateServer(msgbus::IMsgBus* bus, IPtzSerialProvider* implementation);
};

}  // namespace zarip::interfaces
