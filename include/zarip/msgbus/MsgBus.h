// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>

#include <zarip/msgbus/IMsgBus.h>
#include <zarip/osa/Export.h>

namespace zarip::msgbus {

/// A private connection to the system bus. *Thread-safe*.
///
/// States: *connected* after the constructor; *listening* between `StartServer` and `StopServer`, which may
/// follow each other any number of times; *lost* for good when the bus closes the connection.
///
/// Threads: "MsgBusListenThread" runs the handlers from `StartServer` on, one at a time, with the recursive
/// `_busMutex` held, which nothing else locks. "DBusWatcher" writes messages that the bus does not accept at
/// once, and reads if neither the listen thread nor a waiting call does.
///
/// The environment variable DBUS_SYSTEM_BUS_ADDRESS overrides the address; libdbus reads it once per process.
/// libdbus ignores SIGPIPE for the whole process.
class ZARIP_EXPORT MsgBus final : public IMsgBus {
public:
    /// Throws "dbus_bus_get_private failed: <reason>", "dbus_bus_get_private returned NULL", "pipe failed".
    MsgBus();
    MsgBus(const MsgBus&) = delete;
    MsgBus& operator=(const MsgBus&) = delete;

    /// Waits for a running handler, sends the last one-way messages, and closes the connection, which
    /// releases its names. Sending takes at most a quarter of a second and ends early if the bus accepts
    /// nothing. A handler of this connection must not call this.
    ~MsgBus() override;

    void SendMsg(const MsgBusMsg& message) override;
    void SendMsgWaitForReply(const MsgBusMsg& message, MsgBusMsg*& reply, int timeoutMs) override;
    void SendReply(const MsgBusMsg& message) override;
    void StartServer() override;
    void StartServer(unsigned int stackSize, signed char priority) override;
    void StopServer() override;
    void StopServer(bool wait) override;
    void RegisterDestinationName(const std::string& name) override;
    void UnregisterDestinationName(const std::string& name) override;
    bool IsRunning() const override;
    void RegisterMessageHandler(const std::string& member, const std::string& interface,
                                IMessageHandler* handler) override;
    void UnregisterMessageHandler(IMessageHandler* handler) override;

private:
    class MsgBusImpl;
    std::unique_ptr<MsgBusImpl> _impl;
};

}  // namespace zarip::msgbus
