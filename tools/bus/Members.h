// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <vector>

#include <zarip/msgbus/MsgBus.h>

namespace bus {

struct Argument {
    std::string name;
    std::string type;
};

/// A member of a service, or a signal, whose arguments are in `out`.
struct Member {
    std::string name;
    bool isSignal;
    bool isOneWay;
    std::vector<Argument> in;
    std::vector<Argument> out;
};

/// Reads the description that a service gives of itself.
std::vector<Member> ReadMembers(zarip::msgbus::MsgBus& bus, const std::string& service, int timeoutMs);

/// Returns a readable name of a type.
std::string TypeText(const std::string& type);

/// Returns "Name(in: type) -> out: type", "Name(in: type) without reply" or "signal Name(out: type)".
std::string Prototype(const Member& member);

}  // namespace bus
