// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>

#include <zarip/msgbus/IMsgBus.h>
#include <zarip/osa/Export.h>

namespace zarip::msgbus {

/// The process's connection to the system bus, private to this object. *Thread-safe*.
///
/// Threads: "MsgBusListenThread" (from `StartServer` on) runs the handlers, one at a time, with the recursive
/// `_busMutex` held, which nothing else takes. "DBusWatcher" writes what the bus does not take at once, and
/// reads while there is neither a listen thread nor a waiting call.
///
/// The environment variable DBUS_SYSTEM_BUS_ADDRESS overrides the address; it is read once in a process. The
/// bus library ignores SIGPIPE for the whole process.
class ZARIP_EXPORT MsgBus final : public IMsgBus {
public:
    /// Throws "dbus_bus_get_private failed: <reason>", "dbus_bus_get_private returned NULL", "pipe failed".
    MsgBus();
    MsgBus(const MsgBus&) = delete;
    MsgBus& operator=(const MsgBus&) = delete;

    /// Waits for a running handler, hands the last one-way messages to the bus (for at most a quarter of a
    /// second, and not to one that takes nothing), gives up its names and closes the connection. Not to be
    /// called by a handler of this connection.
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
