// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>

namespace zarip::msgbus {
class IMsgBus;
}

namespace zarip::interfaces {

class InterfaceServer;

/// The service that owns the serial line to a pan-tilt-zoom unit, "com.brelk.hardware.ptzSerial": sets and
/// reads the settings of the line, initialising it, and switches the polling of the unit.
///
/// A service derives from it, overrides the members it serves and hands itself to `CreateServer`; a member
/// that it does not override throws `osa::Exception` "unimplemented", also across the bus. Its members are
/// then *called on MsgBusListenThread*, one at a time. Every other process calls the same members on what
/// `CreateClient` returns. There the two that return something wait up to `_timeout` for the reply and throw
/// what `IMsgBus::SendMsgWaitForReply` throws; the setters are one-way, return at once and report nothing,
/// also while no service runs.
///
/// The meaning of the four settings is the service's.
class ZARIP_EXPORT IPtzSerialProvider {
public:
    IPtzSerialProvider();
    IPtzSerialProvider(const IPtzSerialProvider&) = delete;
    IPtzSerialProvider& operator=(const IPtzSerialProvider&) = delete;
    virtual ~IPtzSerialProvider();

    virtual void SetPtzSerialSettingsAndInitialize(unsigned int speed, int framing, unsigned int address,
                                                   bool flag);

    /// Returns the speed. @param framing, address, flag  filled from the reply.
    virtual unsigned int GetPtzSerialSettingsAndInitialize(int& framing, unsigned int& address, bool& flag);
    virtual void SetPtzPollingState(bool on);
    virtual bool GetPtzPollingState();

    /// How long a client waits for a reply, in milliseconds: 5000 unless the caller changes it.
    int _timeout;

    /// A proxy to the service, *caller owns*. @param bus  *not owned*, must outlive the proxy.
    static IPtzSerialProvider* CreateClient(msgbus::IMsgBus* bus);

    /// Serves an implementation on the bus, *caller owns*. Both arguments are *not owned* and must outlive
    /// the server. Throws what `IMsgBus::RegisterDestinationName` throws. Call `IMsgBus::StartServer` after
    /// it.
    static InterfaceServer* CreateServer(msgbus::IMsgBus* bus, IPtzSerialProvider* implementation);
};

}  // namespace zarip::interfaces
