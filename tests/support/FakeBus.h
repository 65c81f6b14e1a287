#pragma once

#include <dbus/dbus.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "zarip/msgbus/IMessageHandler.h"
#include "zarip/msgbus/IMsgBus.h"
#include "zarip/msgbus/MsgBusMsg.h"
#include "zarip/osa/Exception.h"

namespace zarip::test {

/// A bus in memory: hands a message to the handlers registered for it on the caller's thread, and keeps what
/// was sent.
class FakeBus final : public msgbus::IMsgBus {
public:
    void SendMsg(const msgbus::MsgBusMsg& message) override {
        const auto copy = Keep(message);
        dbus_message_set_no_reply(copy->GetDBusMessage(), TRUE);
        Deliver(*copy);
    }

    void SendMsgWaitForReply(const msgbus::MsgBusMsg& message, msgbus::MsgBusMsg*& reply,
                             int timeoutMs) override {
        _timeout = timeoutMs;
        _reply.reset();
        try {
            Deliver(*Keep(message));
        } catch (const std::exception& e) {
            throw osa::Exception("DBUS call failed: %s", e.what());
        }
        if (!_reply) {
            throw osa::Exception("no reply");
        }
        reply = _reply.release();
    }

    void SendReply(const msgbus::MsgBusMsg& message) override {
        _reply = std::make_unique<msgbus::MsgBusMsg>(message);
        _replySignature = dbus_message_get_signature(message.GetDBusMessage());
    }

    void StartServer() override {}
    void StartServer(unsigned int /*stackSize*/, signed char /*priority*/) override {}
    void StopServer() override {}
    void StopServer(bool /*wait*/) override {}
    bool IsRunning() const override { return true; }

    void RegisterDestinationName(const std::string& name) override { _names.push_back(name); }
    void UnregisterDestinationName(const std::string& name) override {
        _names.erase(std::remove(_names.begin(), _names.end(), name), _names.end());
        _trace.push_back("release " + name);
    }

    void RegisterMessageHandler(const std::string& member, const std::string& interface,
                                msgbus::IMessageHandler* handler) override {
        _handlers.push_back({interface, member, handler});
    }
    void UnregisterMessageHandler(msgbus::IMessageHandler* handler) override {
        for (auto entry = _handlers.begin(); entry != _handlers.end(); ++entry) {
            if (entry->handler == handler) {
                _trace.push_back("unregister " + entry->member);
                _handlers.erase(entry);
                return;
            }
        }
    }

    struct Entry {
        std::string interface;
        std::string member;
        msgbus::IMessageHandler* handler;
    };
    std::vector<std::string> _names;
    std::vector<Entry> _handlers;
    std::vector<std::unique_ptr<msgbus::MsgBusMsg>> _sent;
    std::vector<std::string> _trace;
    std::string _replySignature;
    int _timeout = 0;

private:
    std::unique_ptr<msgbus::MsgBusMsg> Keep(const msgbus::MsgBusMsg& message) {
        _sent.push_back(std::make_unique<msgbus::MsgBusMsg>(message));
        auto copy = std::make_unique<msgbus::MsgBusMsg>(message);
        dbus_message_set_serial(copy->GetDBusMessage(), ++_serial);
        return copy;
    }

    void Deliver(const msgbus::MsgBusMsg& message) {
        const bool isSignal = message.GetType() == "signal";
        const int kind = isSignal ? msgbus::IMessageHandler::kSignals : msgbus::IMessageHandler::kMethodCalls;
        const auto handlers = _handlers;
        for (const auto& entry : handlers) {
            if (entry.interface == message.GetInterface() && entry.member == message.GetName() &&
                (entry.handler->GetKind() & kind) != 0) {
                entry.handler->HandleMessage(message, *this);
                if (!isSignal) {
                    break;
                }
            }
        }
    }

    std::unique_ptr<msgbus::MsgBusMsg> _reply;
    dbus_uint32_t _serial = 0;
};

}  // namespace zarip::test
