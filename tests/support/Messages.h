// SPDX-License-Identifier: MIT

#pragma once

#include <functional>
#include <memory>
#include <string>

#include "support/ErrorOf.h"
#include "zarip/msgbus/IMessageHandler.h"
#include "zarip/msgbus/IMsgBus.h"
#include "zarip/msgbus/MsgBusMsg.h"
#include "zarip/msgbus/MsgBusMsgArgumentReader.h"
#include "zarip/msgbus/MsgBusRemoteMethod.h"
#include "zarip/msgbus/MsgBusSignal.h"

namespace zarip::test {

/// A handler that calls a function.
class FunctionHandler final : public msgbus::IMessageHandler {
public:
    using Function = std::function<void(const msgbus::MsgBusMsg&, msgbus::IMsgBus&)>;

    explicit FunctionHandler(Function function, Kind kind = kBoth)
        : _function(std::move(function)), _kind(kind) {}
    void HandleMessage(const msgbus::MsgBusMsg& message, msgbus::IMsgBus& bus) override {
        _function(message, bus);
    }
    Kind GetKind() const override { return _kind; }

private:
    Function _function;
    Kind _kind;
};

/// A handler of calls that answers a string with what a function makes of it.
inline FunctionHandler Answering(std::function<std::string(const std::string&)> answer) {
    return FunctionHandler(
        [answer](const msgbus::MsgBusMsg& call, msgbus::IMsgBus& bus) {
            std::string text;
            call >> text;
            const std::unique_ptr<msgbus::MsgBusMsg> reply(call.MakeReplyMsg());
            *reply << answer(text);
            bus.SendReply(*reply);
        },
        msgbus::IMessageHandler::kMethodCalls);
}

/// Calls a member of a service with a string and returns the string that it answers.
inline std::string Ask(msgbus::IMsgBus& bus, const msgbus::MsgBusObjectSelector& service, const char* member,
                       const std::string& text, int timeoutMs = 30000) {
    msgbus::MsgBusRemoteMethod call(service, member);
    call << text;
    msgbus::MsgBusMsg* answer = nullptr;
    bus.SendMsgWaitForReply(call, answer, timeoutMs);
    const std::unique_ptr<msgbus::MsgBusMsg> reply(answer);
    std::string result;
    *reply >> result;
    return result;
}

}  // namespace zarip::test
