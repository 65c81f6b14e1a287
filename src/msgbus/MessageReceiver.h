// SPDX-License-Identifier: MIT

#pragma once

#include <atomic>
#include <string>

#include "msgbus/BusConnection.h"
#include "msgbus/Inbox.h"
#include "msgbus/ListenState.h"
#include "msgbus/MessageDispatcher.h"
#include "zarip/osa/Mutex.h"

namespace zarip::msgbus {

/// Keeps and dispatches the received messages of a connection. The thread that reads puts them into `_inbox`.
/// The listen thread dispatches them, one at a time, with the recursive `_busMutex` held. Nothing else locks
/// that mutex, and no lock of the connection is held while a handler runs. So other threads send, call and
/// receive replies while a handler runs or waits.
///
/// A call that no handler takes is answered here as libdbus does: with the description of an object or with
/// an error.
class MessageReceiver final : public BusConnection::Receiver {
public:
    /// @param bus  is passed to the handlers. All arguments are *not owned* and must outlive this object.
    MessageReceiver(IMsgBus* bus, core::Logger* logger, ListenState* state, MessageDispatcher* dispatcher);

    void OnReceived(BusConnection& connection, MessageRef message) override;
    void OnLost(BusConnection& connection) override;

    /// Dispatches the oldest message. *Called on MsgBusListenThread*. Returns false if no message waits.
    bool DispatchNext(BusConnection& connection);

private:
    bool IsUnwanted(DBusMessage* message) const;
    void KeepMessage(BusConnection& connection, MessageRef& message, bool isListening);
    void WarnOfDropping(bool isListening);
    bool DispatchMsg(DBusMessage* message);
    void LogReceived(DBusMessage* message);
    void LogReceivedError(DBusMessage* message);
    void LogLostName(DBusMessage* message);

    IMsgBus* _bus;
    core::Logger* _logger;
    ListenState* _state;
    MessageDispatcher* _dispatcher;
    Inbox _inbox;
    osa::Mutex _busMutex{"_busMutex"};
    std::atomic<bool> _hasWarned{false};  ///< whether dropping was logged since the inbox was last empty
    bool _isDispatching = false;          ///< used by the listen thread only
};

}  // namespace zarip::msgbus
