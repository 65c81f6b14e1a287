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

/// What a connection does with received messages: it keeps them in `_inbox`, whichever thread reads, and
/// dispatches them on the listen thread, one at a time, with the recursive `_busMutex` held. Nothing else
/// takes that mutex, and no lock of the connection is held while a handler runs. So other threads send, call
/// and get their replies while a handler runs or waits.
///
/// A call that no handler takes is answered here, as libdbus does it: with the description of an object, or
/// with an error.
class MessageReceiver final : public BusConnection::Receiver {
public:
    /// @param bus  handed to the handlers. All are *not owned* and must outlive this object.
    MessageReceiver(IMsgBus* bus, core::Logger* logger, ListenState* state, MessageDispatcher* dispatcher);

    void OnReceived(BusConnection& connection, MessageRef message) override;
    void OnLost(BusConnection& connection) override;

    /// *Called on MsgBusListenThread*. False if no message waits.
    bool DispatchNext(BusConnection& connection);

private:
    bool IsUnwanted(DBusMessage* message) const;
    void Keep(BusConnection& connection, MessageRef& message, bool isListening);
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
    std::atomic<bool> _hasWarned{false};  ///< of messages dropped since the inbox was last empty
    bool _isDispatching = false;          ///< used by the listen thread alone
};

}  // namespace zarip::msgbus
