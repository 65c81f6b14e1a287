// SPDX-License-Identifier: MIT

#include <cajun/json/elements.h>

#include <algorithm>
#include <charconv>

#include <zarip/core/JsonUtils.h>
#include <zarip/osa/Exception.h>

#include "Commands.h"
#include "Failure.h"
#include "Members.h"
#include "Names.h"
#include "Output.h"

namespace bus {

using namespace zarip;
using msgbus::MsgBus;
using msgbus::MsgBusMsg;

namespace {

[[noreturn]] void RefuseArgument(const std::string& text, const std::string& type) {
    throw Failure(kUsageError, "'" + text + "' is not a value of type " + TypeText(type));
}

template <class Number>
Number ParseNumber(const std::string& text, const std::string& type) {
    Number number{};
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    if (parsed.ec != std::errc() || parsed.ptr != end) {
        RefuseArgument(text, type);
    }
    return number;
}

bool ParseBool(const std::string& text, const std::string& type) {
    if (text != "true" && text != "false") {
        RefuseArgument(text, type);
    }
    return text == "true";
}

Strings ParseList(const std::string& text, const std::string& type) {
    try {
        return core::JsonUtils::AsStringVector(core::JsonUtils::ParseArray(text));
    } catch (const json::Exception&) {
        RefuseArgument(text, type);
    }
}

void Append(MsgBusMsg& message, const std::string& type, const std::string& text) {
    if (type == "s") {
        message << text;
    } else if (type == "b") {
        message << ParseBool(text, type);
    } else if (type == "y") {
        message << ParseNumber<unsigned char>(text, type);
    } else if (type == "n") {
        message << ParseNumber<short>(text, type);
    } else if (type == "q") {
        message << ParseNumber<unsigned short>(text, type);
    } else if (type == "i") {
        message << ParseNumber<int>(text, type);
    } else if (type == "u") {
        message << ParseNumber<unsigned int>(text, type);
    } else if (type == "x") {
        message << ParseNumber<long long>(text, type);
    } else if (type == "t") {
        message << ParseNumber<unsigned long long>(text, type);
    } else if (type == "d") {
        message << ParseNumber<double>(text, type);
    } else if (type == "as") {
        message << ParseList(text, type);
    } else {
        throw Failure(kUsageError, "arguments of type " + type + " cannot be given here");
    }
}

void PrintReply(const MsgBusMsg& reply, const Options& options) {
    DBusMessage* const message = reply.GetDBusMessage();
    if (options.json) {
        Print(ArgumentsAsJson(message));
    } else {
        for (const std::string& argument : ArgumentsAsText(message)) {
            Print(argument);
        }
    }
}

/// Calls a member without arguments that the service does not describe, for example because the signature of
/// its reply varies.
int CallUnlisted(MsgBus& bus, const Options& options, const std::string& service, int timeout) {
    const std::string& name = options.words[2];
    const std::string unknown = service + " has no member " + name + "; see zarip-bus describe";
    if (options.words.size() != 3 || !dbus_validate_member(name.c_str(), nullptr)) {
        throw Failure(kUsageError, unknown);
    }
    try {
        PrintReply(*Send(bus, msgbus::MsgBusRemoteMethod(ObjectOf(service, service), name.c_str()), timeout),
                   options);
    } catch (const Failure& e) {
        if (std::string(e.what()).find("Method \"" + name + "\"") != std::string::npos) {
            throw Failure(kUsageError, unknown);
        }
        throw;
    }
    return kDone;
}

}  // namespace

int Call(MsgBus& bus, const Options& options) {
    const std::string service = Require(bus, options.words[1]);
    const std::string& name = options.words[2];
    const int timeout = options.GetTimeout(kCallTimeoutMs);
    const std::vector<Member> members = ReadMembers(bus, service, timeout);
    const auto member = std::find_if(members.begin(), members.end(), [&name](const Member& candidate) {
        return candidate.name == name && !candidate.isSignal;
    });
    if (member == members.end()) {
        return CallUnlisted(bus, options, service, timeout);
    }
    if (options.words.size() != 3 + member->in.size()) {
        throw Failure(kUsageError, name + " takes " + std::to_string(member->in.size()) + " arguments, not " +
                                       std::to_string(options.words.size() - 3) + ": " + Prototype(*member));
    }
    msgbus::MsgBusRemoteMethod message(ObjectOf(service, service), name.c_str());
    for (std::size_t i = 0; i < member->in.size(); ++i) {
        try {
            Append(message, member->in[i].type, options.words[3 + i]);
        } catch (const osa::Exception& e) {
            throw Failure(kUsageError, name + ": " + e.what());
        }
    }
    if (member->isOneWay) {
        bus.SendMsg(message);
        AskBus<std::string>(bus, "GetId");  // the bus answers this after it has forwarded the call
        return kDone;
    }
    PrintReply(*Send(bus, message, timeout), options);
    return kDone;
}

}  // namespace bus
