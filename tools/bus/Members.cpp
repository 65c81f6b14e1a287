// SPDX-License-Identifier: MIT

#include "Members.h"

#include <map>

#include <zarip/xml/XmlDocument.h>
#include <zarip/xml/XmlException.h>

#include "Failure.h"
#include "Names.h"

namespace bus {

using namespace zarip;
using xml::XmlElement;

namespace {

Member ReadMember(XmlElement element, bool isSignal) {
    Member member{element.GetAttributeOr("name", ""), isSignal, false, {}, {}};
    for (const XmlElement argument : element.GetChildren("arg")) {
        const bool isOut = isSignal || argument.GetAttributeOr("direction", "") == "out";
        (isOut ? member.out : member.in)
            .push_back({argument.GetAttributeOr("name", ""), argument.GetAttributeOr("type", "")});
    }
    for (const XmlElement annotation : element.GetChildren("annotation")) {
        member.isOneWay |= annotation.GetAttributeOr("name", "") == "org.freedesktop.DBus.Method.NoReply" &&
                           annotation.GetAttributeOr("value", "") == "true";
    }
    return member;
}

/// Reads the members of one interface from the description of a service.
std::vector<Member> ReadInterface(const xml::XmlDocument& description, const std::string& name) {
    std::vector<Member> members;
    for (const XmlElement interface : description.GetRoot().GetChildren("interface")) {
        if (interface.GetAttributeOr("name", "") != name) {
            continue;
        }
        for (const XmlElement method : interface.GetChildren("method")) {
            members.push_back(ReadMember(method, false));
        }
        for (const XmlElement signal : interface.GetChildren("signal")) {
            members.push_back(ReadMember(signal, true));
        }
    }
    return members;
}

std::string Listing(const std::vector<Argument>& arguments) {
    std::string text;
    for (const Argument& argument : arguments) {
        text += text.empty() ? "" : ", ";
        text += argument.name + (argument.name.empty() ? "" : ": ") + TypeText(argument.type);
    }
    return text;
}

}  // namespace

std::vector<Member> ReadMembers(msgbus::MsgBus& bus, const std::string& service, int timeoutMs) {
    const auto object = ObjectOf(service, DBUS_INTERFACE_INTROSPECTABLE);
    if (!dbus_validate_path(object.GetPath().c_str(), nullptr)) {
        throw Failure(kFailed, service + " has no object of its name, so it is not a service to call");
    }
    const msgbus::MsgBusRemoteMethod message(object, "Introspect");
    std::string text;
    msgbus::MsgBusMsgArgumentReader(*Send(bus, message, timeoutMs)) >> text;
    try {
        return ReadInterface(xml::XmlDocument::Parse(text), service);
    } catch (const xml::XmlException& e) {
        throw Failure(kFailed, service + " describes itself by something that is not XML: " + e.ToString());
    }
}

std::string TypeText(const std::string& type) {
    static const std::map<std::string, const char*> texts = {
        {"b", "bool"},
        {"y", "byte"},
        {"n", "int16"},
        {"q", "uint16"},
        {"i", "int"},
        {"u", "uint"},
        {"x", "int64"},
        {"t", "uint64"},
        {"d", "double"},
        {"s", "string"},
        {"as", "list of strings"},
    };
    const auto text = texts.find(type);
    return text != texts.end() ? text->second : type;
}

std::string Prototype(const Member& member) {
    if (member.isSignal) {
        return "signal " + member.name + "(" + Listing(member.out) + ")";
    }
    const std::string text = member.name + "(" + Listing(member.in) + ")";
    return member.isOneWay ? text + " without reply"
                           : text + (member.out.empty() ? "" : " -> " + Listing(member.out));
}

}  // namespace bus
