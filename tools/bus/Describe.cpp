// SPDX-License-Identifier: MIT

#include "Commands.h"
#include "Failure.h"
#include "Members.h"
#include "Names.h"
#include "Output.h"

namespace bus {

namespace {

std::string AsJson(const std::vector<Argument>& arguments) {
    Strings elements;
    for (const Argument& argument : arguments) {
        JsonObject element;
        element.Add("name", JsonString(argument.name));
        element.Add("type", JsonString(argument.type));
        elements.push_back(element.Get());
    }
    return JsonArray(elements);
}

std::string AsJson(const std::string& service, const std::vector<Member>& members) {
    Strings methods;
    Strings signals;
    for (const Member& member : members) {
        JsonObject element;
        element.Add("name", JsonString(member.name));
        if (member.isSignal) {
            element.Add("arguments", AsJson(member.out));
            signals.push_back(element.Get());
        } else {
            element.Add("arguments", AsJson(member.in));
            element.Add("results", AsJson(member.out));
            element.Add("hasReply", member.isOneWay ? "false" : "true");
            methods.push_back(element.Get());
        }
    }
    JsonObject description;
    description.Add("name", JsonString(service));
    description.Add("methods", JsonArray(methods));
    description.Add("signals", JsonArray(signals));
    return description.Get();
}

}  // namespace

int Describe(zarip::msgbus::MsgBus& bus, const Options& options) {
    const std::string service = Require(bus, options.words[1]);
    const std::vector<Member> members = ReadMembers(bus, service, options.GetTimeout(kCallTimeoutMs));
    if (options.json) {
        Print(AsJson(service, members));
        return kDone;
    }
    Print(service);
    for (const Member& member : members) {
        Print("  " + Prototype(member));
    }
    return kDone;
}

}  // namespace bus
