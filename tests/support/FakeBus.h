// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>
#include <vector>

#include "zarip/msgbus/FakeBus.h"
#include "zarip/msgbus/IMessageHandler.h"
#include "zarip/msgbus/MsgBusMsg.h"

namespace zarip::test {

/// A `FakeBus` that also keeps what is registered, the last reply and the last time-out.
class FakeBus final : public msgbus::FakeBus {
public:
    void SendMsgWaitForReply(const msgbus::MsgBusMsg& message, msgbus::MsgBusMsg*& reply,
                             int timeoutMs) override {
        _timeout = timeoutMs;
        msgbus::FakeBus::SendMsgWaitForReply(message, reply, timeoutMs);
    }
    void SendReply(const msgbus::MsgBusMsg& message) override {
        _replySignature = message.GetSignature();
        msgbus::FakeBus::SendReply(message);
    }
    void UnregisterDestinationName(const std::string& name) override {
        msgbus::FakeBus::UnregisterDestinationName(name);
        _trace.push_back("release " + name);
    }
    void RegisterMessageHandler(const std::string& member, const std::string& interface,
                                msgbus::IMessageHandler* handler) override {
        msgbus::FakeBus::RegisterMessageHandler(member, interface, handler);
        _handlers.push_back({interface, member, handler->GetKind()});
    }
    void UnregisterMessageHandler(msgbus::IMessageHandler* handler) override {
        msgbus::FakeBus::UnregisterMessageHandler(handler);
        _trace.push_back("unregister");
    }

    struct Entry {
        std::string interface;
        std::string member;
        msgbus::IMessageHandler::Kind kind;
    };
    std::vector<Entry> _handlers;
    std::vector<std::string> _trace;
    std::string _replySignature;
    int _timeout = 0;
};

}  // namespace zarip::test
