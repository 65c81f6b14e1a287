// SPDX-License-Identifier: MIT

#include "zarip/msgbus/FakeBus.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <map>
#include <utility>

#include "msgbus/CallRouting.h"
#include "msgbus/DBusText.h"
#include "msgbus/MsgBusMsgImpl.h"
#include "zarip/core/Logger.h"
#include "zarip/msgbus/MsgBusMsg.h"
#include "zarip/osa/Exception.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::msgbus {

namespace {

constexpr const char* kUniqueName = ":1.1";

}  // namespace

/// Two locks: the recursive `_turn` is held while handlers run; `_mutex` guards the fields, is taken inside
/// of it, and is never held while a handler runs.
///
/// What is sent one-way enters `_queue`. The thread that delivers empties the queue before it gives up its
/// turn, so a thread that sends while another one delivers does not wait for it.
class ZARIP_HIDDEN FakeBus::FakeBusImpl {
public:
    explicit FakeBusImpl(FakeBus* bus) : _bus(bus) {}

    void Send(MsgBusMsgImpl& message) {
        const bool isCall = dbus_message_get_type(message.Get()) == DBUS_MESSAGE_TYPE_METHOD_CALL;
        MessageRef sent = Accept(message, isCall ? DBUS_MESSAGE_TYPE_METHOD_CALL : DBUS_MESSAGE_TYPE_SIGNAL);
        dbus_message_set_no_reply(sent.Get(), TRUE);
        {
            const osa::MutexAutoLock lock(&_mutex);
            _queue.push_back(std::move(sent));
            if (_isDelivering) {
                return;
            }
        }
        const osa::MutexAutoLock turn(&_turn);
        Delivering(*this).Finish();
    }

    MsgBusMsg* Call(MsgBusMsgImpl& message) {
        const MessageRef call = Accept(message, DBUS_MESSAGE_TYPE_METHOD_CALL);
        dbus_message_set_no_reply(call.Get(), FALSE);
        {
            const osa::MutexAutoLock turn(&_turn);
            Delivering delivering(*this);
            delivering.EmptyQueue();
            Deliver(call.Get());
            delivering.Finish();
        }
        MessageRef reply = TakeReply(dbus_message_get_serial(call.Get()));
        DBusErrorRecord error;
        if (!reply) {
            dbus_set_error_const(error.Get(), DBUS_ERROR_NO_REPLY, "Did not receive a reply");
        } else {
            dbus_set_error_from_message(error.Get(), reply.Get());
        }
        if (error.IsSet()) {
            throw osa::Exception("DBUS call " + std::string(TextOf(dbus_message_get_interface(call.Get()))) +
                                 "::" + TextOf(dbus_message_get_member(call.Get())) +
                                 " failed: " + error.GetMessage());
        }
        auto impl = std::make_unique<MsgBusMsgImpl>(std::move(reply));
        impl->MarkSent();
        return new MsgBusMsg(impl.release());
    }

    void SendReply(MsgBusMsgImpl& message) {
        const int type = dbus_message_get_type(message.Get());
        if (message.IsSent() ||
            (type != DBUS_MESSAGE_TYPE_METHOD_RETURN && type != DBUS_MESSAGE_TYPE_ERROR)) {
            throw osa::Exception("dbus_connection_send failed");
        }
        Answer(std::move(message.MakeOutgoing().message));
        message.MarkSent();
    }

    void RegisterName(const std::string& name) {
        if (!IsValidBusName(name.c_str())) {
            throw osa::Exception("dbus_bus_request_name failed for " + name +
                                 "Requested bus name is not valid");
        }
        const osa::MutexAutoLock lock(&_mutex);
        if (!OwnsName(name)) {
            _names.push_back(name);
        }
    }

    void UnregisterName(const std::string& name) {
        const osa::MutexAutoLock lock(&_mutex);
        _names.erase(std::remove(_names.begin(), _names.end(), name), _names.end());
    }

    std::vector<std::string> GetNames() {
        const osa::MutexAutoLock lock(&_mutex);
        return _names;
    }

    std::vector<std::unique_ptr<MsgBusMsg>> TakeSent() {
        const osa::MutexAutoLock lock(&_mutex);
        return std::exchange(_sent, {});
    }

    MessageDispatcher& GetDispatcher() { return _dispatcher; }
    std::atomic<bool>& GetRunning() { return _isRunning; }

private:
    /// The turn of a thread, which its calls in handlers share. The end of the turn is also the end of one
    /// that an exception or pthread_exit cuts short.
    class Delivering {
    public:
        explicit Delivering(FakeBusImpl& bus) : _bus(bus) {
            const osa::MutexAutoLock lock(&_bus._mutex);
            _isOutermost = !_bus._isDelivering;
            _bus._isDelivering = true;
        }
        Delivering(const Delivering&) = delete;
        Delivering& operator=(const Delivering&) = delete;
        ~Delivering() {
            if (_isOutermost) {
                const osa::MutexAutoLock lock(&_bus._mutex);
                _bus._isDelivering = false;
            }
        }

        /// A nested turn leaves the queue to the outermost one, as a handler that waits on a real bus does.
        void EmptyQueue() const {
            while (_isOutermost) {
                const MessageRef next = _bus.TakeNext(false);
                if (!next) {
                    return;
                }
                _bus.Deliver(next.Get());
            }
        }

        /// The same, and the turn ends in the moment in which the queue is empty, so that no message is left.
        void Finish() {
            while (_isOutermost) {
                const MessageRef next = _bus.TakeNext(true);
                if (next) {
                    _bus.Deliver(next.Get());
                } else {
                    _isOutermost = false;
                }
            }
        }

    private:
        FakeBusImpl& _bus;
        bool _isOutermost = false;
    };

    /// A copy of the message as it is received, after the checks of a real bus.
    MessageRef Accept(MsgBusMsgImpl& message, int type) {
        if (dbus_message_get_type(message.Get()) != type) {
            throw osa::Exception("dbus_connection_send failed");
        }
        auto copy = std::make_unique<MsgBusMsg>(new MsgBusMsgImpl(message));
        MessageRef received = MessageRef::Adopt(dbus_message_copy(message.MakeOutgoing().message.Get()));
        if (!received || dbus_message_set_sender(received.Get(), kUniqueName) == FALSE) {
            throw osa::Exception("dbus_message_copy failed");
        }
        message.MarkSent();
        const osa::MutexAutoLock lock(&_mutex);
        dbus_message_set_serial(received.Get(), ++_serial);
        _sent.push_back(std::move(copy));
        return received;
    }

    /// Empty if the queue is. @param isLast  ends the turn in that case.
    MessageRef TakeNext(bool isLast) {
        const osa::MutexAutoLock lock(&_mutex);
        if (_queue.empty()) {
            _isDelivering = _isDelivering && !isLast;
            return {};
        }
        MessageRef next = std::move(_queue.front());
        _queue.pop_front();
        return next;
    }

    void Deliver(DBusMessage* message) {
        const char* const destination = dbus_message_get_destination(message);
        if (destination != nullptr && !IsHere(destination)) {
            Answer(MakeRefusal(
                message, DBUS_ERROR_SERVICE_UNKNOWN,
                "The name " + std::string(destination) + " was not provided by any .service files"));
        } else if (!RouteToHandlers(message, _dispatcher, *_bus)) {
            Answer(MakeRefusal(message, *_bus));
        }
    }

    bool IsHere(const std::string& destination) {
        const osa::MutexAutoLock lock(&_mutex);
        return destination == kUniqueName || OwnsName(destination);
    }

    bool OwnsName(const std::string& name) const ZARIP_REQUIRES(_mutex) {
        return std::find(_names.begin(), _names.end(), name) != _names.end();
    }

    void Answer(MessageRef reply) {
        if (reply) {
            const osa::MutexAutoLock lock(&_mutex);
            _replies[dbus_message_get_reply_serial(reply.Get())] = std::move(reply);
        }
    }

    MessageRef TakeReply(dbus_uint32_t serial) {
        const osa::MutexAutoLock lock(&_mutex);
        auto reply = _replies.extract(serial);
        return reply.empty() ? MessageRef() : std::move(reply.mapped());
    }

    FakeBus* _bus;
    MessageDispatcher _dispatcher{core::Logger::GetLogger("MsgBus")};
    std::atomic<bool> _isRunning{false};
    osa::Mutex _turn{"FakeBus turn"};
    osa::Mutex _mutex{"FakeBus"};
    std::vector<std::string> _names ZARIP_GUARDED_BY(_mutex);
    std::vector<std::unique_ptr<MsgBusMsg>> _sent ZARIP_GUARDED_BY(_mutex);
    std::deque<MessageRef> _queue ZARIP_GUARDED_BY(_mutex);
    std::map<dbus_uint32_t, MessageRef> _replies ZARIP_GUARDED_BY(_mutex);
    dbus_uint32_t _serial ZARIP_GUARDED_BY(_mutex) = 0;
    bool _isDelivering ZARIP_GUARDED_BY(_mutex) = false;
};

FakeBus::FakeBus() : _impl(std::make_unique<FakeBusImpl>(this)) {}

FakeBus::~FakeBus() = default;

void FakeBus::SendMsg(const MsgBusMsg& message) {
    _impl->Send(*message._impl);
}

void FakeBus::SendMsgWaitForReply(const MsgBusMsg& message, MsgBusMsg*& reply, int /*timeoutMs*/) {
    reply = _impl->Call(*message._impl);
}

void FakeBus::SendReply(const MsgBusMsg& message) {
    _impl->SendReply(*message._impl);
}

void FakeBus::StartServer() {
    _impl->GetRunning() = true;
}

void FakeBus::StartServer(unsigned int /*stackSize*/, signed char /*priority*/) {
    _impl->GetRunning() = true;
}

void FakeBus::StopServer() {
    _impl->GetRunning() = false;
}

void FakeBus::StopServer(bool /*wait*/) {
    _impl->GetRunning() = false;
}

void FakeBus::RegisterDestinationName(const std::string& name) {
    _impl->RegisterName(name);
}

void FakeBus::UnregisterDestinationName(const std::string& name) {
    _impl->UnregisterName(name);
}

bool FakeBus::IsRunning() const {
    return _impl->GetRunning();
}

void FakeBus::RegisterMessageHandler(const std::string& member, const std::string& interface,
                                     IMessageHandler* handler) {
    if (handler == nullptr) {
        throw osa::Exception("MsgBus: handler is null");
    }
    _impl->GetDispatcher().Add(interface, member, handler);
}

void FakeBus::UnregisterMessageHandler(IMessageHandler* handler) {
    _impl->GetDispatcher().Remove(handler);
}

std::vector<std::string> FakeBus::GetNames() const {
    return _impl->GetNames();
}

std::vector<std::unique_ptr<MsgBusMsg>> FakeBus::TakeSent() {
    return _impl->TakeSent();
}

}  // namespace zarip::msgbus
