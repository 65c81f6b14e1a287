// SPDX-License-Identifier: MIT

#include "zarip/msgbus/MsgBus.h"
#include "osa/DescribeCaught.h"

#include <cxxabi.h>

#include "msgbus/BusConnection.h"
#include "msgbus/BusDaemon.h"
#include "msgbus/ListenState.h"
#include "msgbus/MessageDispatcher.h"
#include "msgbus/MessageReceiver.h"
#include "msgbus/MsgBusMsgImpl.h"
#include "zarip/core/Logger.h"
#include "zarip/msgbus/MsgBusMsg.h"
#include "zarip/osa/Exception.h"
#include "zarip/osa/Mutex.h"
#include "zarip/osa/MutexAutoLock.h"
#include "zarip/osa/Runnable.h"
#include "zarip/osa/Thread.h"

namespace zarip::msgbus {

namespace {

constexpr const char* kSendFailed = "dbus_connection_send failed";

bool IsCall(DBusMessage* message) {
    return dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_CALL;
}

bool IsSignal(DBusMessage* message) {
    return dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_SIGNAL;
}

bool IsReply(DBusMessage* message) {
    return !IsCall(message) && !IsSignal(message);
}

std::string MakeMatchRule(const std::string& interface, const std::string& member) {
    return "interface='" + interface + "',member='" + member + "'";
}

}  // namespace

/// Combines the parts of a connection. `BusConnection` sends, receives and waits for replies,
/// `MessageReceiver` keeps and dispatches received messages, and `BusDaemon` requests names and rules. This
/// class owns the listen thread.
///
/// `_serverMutex` guards starting and stopping. It is held while the listen thread is joined, so that thread
/// never locks it. Lock order: `_serverMutex`, `_busMutex`, a handler's mutex, the connection's lock, then
/// the mutexes of the dispatcher, the inbox, the outbox, the pending calls, the watcher and the state.
///
/// Why it is built so: a single mutex for waiting calls, handlers and senders would be simpler. But each of
/// them could then block the others for as long as a peer takes, and a lock of the program could cause a
/// deadlock. A thread for all reading and writing would cost a change of threads for each message, which
/// doubles the time of a call. A connection for each purpose would cost the bus a name, and messages would
/// lose their order.
class ZARIP_HIDDEN MsgBus::MsgBusImpl final : public osa::Runnable {
public:
    explicit MsgBusImpl(MsgBus* bus);
    ~MsgBusImpl() override;

    void Send(MsgBusMsgImpl& message);
    MsgBusMsg* Call(MsgBusMsgImpl& message, int timeoutMs);
    void SendReply(MsgBusMsgImpl& message);
    void StartServer(unsigned int stackSize, signed char priority);
    void StopServer(bool wait);
    bool IsRunning() const { return _state.IsRunning(); }
    BusDaemon& GetDaemon() { return _daemon; }
    void Register(const std::string& member, const std::string& interface, IMessageHandler* handler);
    void Unregister(IMessageHandler* handler);

    void Run() override;
    void Stop() override;

private:
    class Listening;

    void Listen();
    void JoinListenThread() ZARIP_REQUIRES(_serverMutex);

    core::Logger* _logger;
    ListenState _state;
    MessageDispatcher _dispatcher;
    MessageReceiver _receiver;
    osa::Mutex _serverMutex{"_serverMutex"};
    std::unique_ptr<osa::Thread> _listenThread ZARIP_GUARDED_BY(_serverMutex);
    BusConnection _connection;  // after the members that its thread uses
    BusDaemon _daemon;
};

MsgBus::MsgBusImpl::MsgBusImpl(MsgBus* bus)
    : _logger(core::Logger::GetLogger("MsgBus")),
      _dispatcher(_logger),
      _receiver(bus, _logger, &_state, &_dispatcher),
      _connection(_logger, &_receiver),
      _daemon(_logger, &_state, &_connection) {
    _connection.Start();
}

MsgBus::MsgBusImpl::~MsgBusImpl() {
    StopServer(true);
}

// ------------------------------------------------------------------------------------------------------------
// Sending

void MsgBus::MsgBusImpl::Send(MsgBusMsgImpl& message) {
    DBusMessage* const original = message.Get();
    if (_logger->IsEnabled(core::Logger::kTrace)) {
        _logger->Trace("Sending %s on interface %s", TextOf(dbus_message_get_member(original)),
                       TextOf(dbus_message_get_interface(original)));
    }
    if (IsReply(original) && message.IsSent()) {
        throw osa::Exception("%s", kSendFailed);  // a call has only one reply
    }
    MsgBusMsgImpl::Outgoing outgoing = message.MakeOutgoing();
    if (IsCall(original)) {
        // No thread waits for a reply. Without the flag, the daemon would reserve a place for the reply for
        // ever.
        dbus_message_set_no_reply(outgoing.message.Get(), TRUE);
    }
    if (_connection.Send(std::move(outgoing.message), outgoing.size, _state.GetPatience()) !=
        Outbox::Result::kTaken) {
        throw osa::Exception("%s", kSendFailed);
    }
    message.MarkSent();
}

void MsgBus::MsgBusImpl::SendReply(MsgBusMsgImpl& message) {
    if (_state.IsLost()) {
        return;
    }
    if (message.IsSent() || !IsReply(message.Get())) {
        throw osa::Exception("%s", kSendFailed);
    }
    MsgBusMsgImpl::Outgoing outgoing = message.MakeOutgoing();
    switch (_connection.Send(std::move(outgoing.message), outgoing.size, _state.GetPatience())) {
        case Outbox::Result::kTaken:
            message.MarkSent();
            _logger->Trace("Done sending reply");
            break;
        case Outbox::Result::kFull:
            // Deliberate: this is logged and not thrown, because an exception of a handler would only become
            // another reply.
            _logger->Error("dbus_connection_send() error: Out of Memory!");
            break;
        case Outbox::Result::kClosed:
            break;
    }
}

MsgBusMsg* MsgBus::MsgBusImpl::Call(MsgBusMsgImpl& message, int timeoutMs) {
    DBusMessage* const original = message.Get();
    const bool isTracing = _logger->IsEnabled(core::Logger::kTrace);
    if (isTracing) {
        _logger->Trace("in SendMsgWaitForReply()...");
        _logger->Trace("Sending %s from interface %s", TextOf(dbus_message_get_member(original)),
                       TextOf(dbus_message_get_interface(original)));
    }
    if (!IsCall(original)) {
        throw osa::Exception("%s", kSendFailed);
    }
    MsgBusMsgImpl::Outgoing outgoing = message.MakeOutgoing();
    // The message may be a copy of one that was sent one-way.
    dbus_message_set_no_reply(outgoing.message.Get(), FALSE);
    message.MarkSent();
    DBusErrorRecord error;
    MessageRef reply = _connection.Call(std::move(outgoing.message), outgoing.size, timeoutMs,
                                        _state.GetPatience(), BusConnection::AfterTimeout::kWithdraw, error);
    if (error.IsSet()) {
        throw osa::Exception("DBUS call " + std::string(TextOf(dbus_message_get_interface(original))) + "::" +
                             TextOf(dbus_message_get_member(original)) + " failed: " + error.GetMessage());
    }
    if (!reply) {
        throw osa::Exception("failed to get reply");
    }
    if (isTracing) {
        DBusMessage* const received = reply.Get();
        _logger->Trace("Creating MsgBusMsg");
        _logger->Trace("Reply: %s with name=%s on interface %s from %s",
                       dbus_message_type_to_string(dbus_message_get_type(received)),
                       TextOf(dbus_message_get_member(received)),
                       TextOf(dbus_message_get_interface(received)),
                       TextOf(dbus_message_get_sender(received)));
        _logger->Trace("SendMsgWaitForReply() done.");
    }
    auto impl = std::make_unique<MsgBusMsgImpl>(std::move(reply));
    impl->MarkSent();
    return new MsgBusMsg(impl.release());
}

// ------------------------------------------------------------------------------------------------------------
// The listen thread

void MsgBus::MsgBusImpl::StartServer(unsigned int stackSize, signed char priority) {
    if (_state.IsListenThread()) {
        // A handler that has requested the stop may withdraw it.
        _state.TakeStopBack();
        _logger->Warning("listen thread already running");
        return;
    }
    const osa::MutexAutoLock lock(&_serverMutex);
    if (_state.IsListening()) {
        _logger->Warning("listen thread already running");
        return;
    }
    JoinListenThread();
    if (!_state.Begin()) {
        return;
    }
    try {
        _listenThread = std::make_unique<osa::Thread>("MsgBusListenThread", this, stackSize, priority);
        _listenThread->Run();
    } catch (...) {
        _listenThread.reset();
        _state.End();
        throw;
    }
}

void MsgBus::MsgBusImpl::Stop() {
    StopServer(false);
}

void MsgBus::MsgBusImpl::StopServer(bool wait) {
    _logger->Debug("stopping the listen thread...");
    _state.RequestStop(false);
    _connection.WakeListener();
    if (!wait || _state.IsListenThread()) {
        return;
    }
    const osa::MutexAutoLock lock(&_serverMutex);
    if (_listenThread) {
        _logger->Debug("joining the listen thread...");
        JoinListenThread();
        _logger->Debug("_pListenThread is joined.");
    }
}

void MsgBus::MsgBusImpl::JoinListenThread() {
    if (_listenThread) {
        // The request is repeated, because a handler may have withdrawn the first one.
        _state.RequestStop(true);
        _connection.WakeListener();
        _listenThread->Join();
        _listenThread.reset();
    }
}

/// Makes the calling thread the listen thread for a scope. The destructor also runs if a handler calls
/// pthread_exit.
class MsgBus::MsgBusImpl::Listening {
public:
    explicit Listening(MsgBusImpl& impl) : _impl(impl), _mark(&impl._state) {
        _impl._logger->Debug("In MsgBus listen thread...");
        _impl._connection.BeginListening();
    }
    Listening(const Listening&) = delete;
    Listening& operator=(const Listening&) = delete;
    ~Listening() {
        _impl._logger->Debug("Listen loop exiting.");
        _impl._connection.EndListening();
        _impl._state.End();
    }

private:
    MsgBusImpl& _impl;
    const ListenState::OnThisThread _mark;
};

void MsgBus::MsgBusImpl::Run() {
    const Listening listening(*this);
    try {
        Listen();
    } catch (const abi::__forced_unwind&) {
        throw;  // pthread_exit in a handler
    } catch (...) {
        _logger->Error("Run caught exception: %s", osa::DescribeCaught());
    }
}

void MsgBus::MsgBusImpl::Listen() {
    for (;;) {
        const ListenState::Next next = _state.GetNext();
        if (next == ListenState::Next::kLeave) {
            return;
        }
        if (_receiver.DispatchNext(_connection)) {
            continue;
        }
        if (next == ListenState::Next::kDispatchTheRest) {
            return;
        }
        _connection.WaitAndRead();
    }
}

// ------------------------------------------------------------------------------------------------------------
// Handlers

void MsgBus::MsgBusImpl::Register(const std::string& member, const std::string& interface,
                                  IMessageHandler* handler) {
    if (handler == nullptr) {
        throw osa::Exception("MsgBus: handler is null");
    }
    _logger->Information("Registering interface %s and name %s for callback", interface.c_str(),
                         member.c_str());
    _dispatcher.Add(interface, member, handler);
    try {
        _daemon.AddMatch(MakeMatchRule(interface, member));
    } catch (...) {
        _dispatcher.Remove(handler);  // the caller may delete it
        throw;
    }
}

void MsgBus::MsgBusImpl::Unregister(IMessageHandler* handler) {
    const auto registrations = _dispatcher.Remove(handler);
    if (registrations.empty()) {
        _logger->Error("Failed to unregister message handler: %s", "the handler is not registered");
    }
    for (const auto& registration : registrations) {
        try {
            const auto& [interface, member] = registration.place;
            _daemon.RemoveMatch(MakeMatchRule(interface, member));
        } catch (...) {
            _logger->Error("Failed to unregister message handler: %s", osa::DescribeCaught());
        }
    }
}

// ------------------------------------------------------------------------------------------------------------

MsgBus::MsgBus() : _impl(std::make_unique<MsgBusImpl>(this)) {}

MsgBus::~MsgBus() = default;

void MsgBus::SendMsg(const MsgBusMsg& message) {
    _impl->Send(*message._impl);
}

void MsgBus::SendMsgWaitForReply(const MsgBusMsg& message, MsgBusMsg*& reply, int timeoutMs) {
    reply = _impl->Call(*message._impl, timeoutMs);
}

void MsgBus::SendReply(const MsgBusMsg& message) {
    _impl->SendReply(*message._impl);
}

void MsgBus::StartServer() {
    _impl->StartServer(0, 0);
}

void MsgBus::StartServer(unsigned int stackSize, signed char priority) {
    _impl->StartServer(stackSize, priority);
}

void MsgBus::StopServer() {
    _impl->StopServer(true);
}

void MsgBus::StopServer(bool wait) {
    _impl->StopServer(wait);
}

void MsgBus::RegisterDestinationName(const std::string& name) {
    _impl->GetDaemon().RequestName(name);
}

void MsgBus::UnregisterDestinationName(const std::string& name) {
    _impl->GetDaemon().ReleaseName(name);
}

bool MsgBus::IsRunning() const {
    return _impl->IsRunning();
}

void MsgBus::RegisterMessageHandler(const std::string& member, const std::string& interface,
                                    IMessageHandler* handler) {
    _impl->Register(member, interface, handler);
}

void MsgBus::UnregisterMessageHandler(IMessageHandler* handler) {
    _impl->Unregister(handler);
}

}  // namespace zarip::msgbus
