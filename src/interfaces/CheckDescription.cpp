// SPDX-License-Identifier: MIT

#include "zarip/interfaces/CheckDescription.h"

#include <algorithm>
#include <map>
#include <set>

#include "zarip/interfaces/ServerBase.h"
#include "zarip/osa/Exception.h"
#include "zarip/xml/XmlDocument.h"
#include "zarip/xml/XmlException.h"

namespace zarip::interfaces {

namespace {

using std::string;

/// Maps "method <name>" or "signal <name>" to signatures.
using Shapes = std::multimap<string, string>;

string MakeCallShape(const string& in, const string& out, bool isOneWay) {
    return "(" + in + ")" + (isOneWay ? " one-way" : " -> (" + out + ")");
}

/// Reads the element of one interface and collects the faults that the element has in itself.
class DescriptionReader {
public:
    explicit DescriptionReader(string& mismatches) : _mismatches(mismatches) {}

    Shapes ReadInterface(const ServiceDescription& service) {
        Shapes shapes;
        try {
            const auto document = xml::XmlDocument::Parse(service.xml);
            if (document.GetRoot().GetAttributeOr("name", "") != service.name) {
                _mismatches += string("the description is not that of ") + service.name + "\n";
            }
            for (const xml::XmlElement member : document.GetRoot().GetChildren()) {
                const string kind = member.GetName();
                const string name = kind + " " + member.GetAttributeOr("name", "");
                if (kind == "method") {
                    shapes.emplace(name, ReadMethod(name, member));
                } else if (kind == "signal" || kind == "property") {
                    // Servers have no properties, so every property becomes a mismatch.
                    shapes.emplace(name, ReadSignal(name, member));
                }
            }
        } catch (const xml::XmlException& e) {
            _mismatches += "the description is not XML: " + e.ToString() + "\n";
        }
        return shapes;
    }

private:
    string ReadSignal(const string& name, xml::XmlElement signal) {
        return "(" + ReadArguments(name, signal, {"", "out"}) + ")";
    }

    string ReadMethod(const string& name, xml::XmlElement method) {
        for (const xml::XmlElement argument : method.GetChildren("arg")) {
            const string direction = argument.GetAttributeOr("direction", "");
            if (direction != "in" && direction != "out") {
                _mismatches.append(name).append(": an argument has the direction '");
                _mismatches.append(direction).append("'\n");
            }
        }
        bool isOneWay = false;
        for (const xml::XmlElement annotation : method.GetChildren("annotation")) {
            isOneWay =
                isOneWay || (annotation.GetAttributeOr("name", "") == "org.freedesktop.DBus.Method.NoReply" &&
                             annotation.GetAttributeOr("value", "") == "true");
        }
        const string out = ReadArguments(name, method, {"out"});
        if (isOneWay && !out.empty()) {
            _mismatches += name + ": a one-way method returns nothing\n";
        }
        return MakeCallShape(ReadArguments(name, method, {"in"}), out, isOneWay);
    }

    string ReadArguments(const string& name, xml::XmlElement member, const std::set<string>& directions) {
        string signature;
        std::set<string> names{""};
        for (const xml::XmlElement argument : member.GetChildren("arg")) {
            if (directions.count(argument.GetAttributeOr("direction", "")) != 0) {
                signature += argument.GetAttributeOr("type", "");
                if (!names.insert(argument.GetAttributeOr("name", "")).second) {
                    _mismatches += name + ": an argument has no name of its own\n";
                }
            }
        }
        return signature;
    }

    string& _mismatches;
};

Shapes MakeShapes(const std::vector<internal::ServerBase::Member>& members) {
    Shapes shapes;
    for (const auto& member : members) {
        const string in = member.in();
        if (member.isSignal) {
            shapes.emplace(string("signal ") + member.name, "(" + in + ")");
        } else {
            shapes.emplace(
                string("method ") + member.name,
                MakeCallShape(in, member.out != nullptr ? member.out() : "", member.out == nullptr));
        }
    }
    return shapes;
}

string CompareShapes(const string& name, const Shapes& described, const Shapes& served) {
    const auto countDescribed = described.count(name);
    const auto countServed = served.count(name);
    if (countDescribed > 1 || countServed > 1) {
        return name + (countServed > 1 ? " is in the table twice\n" : " is described twice\n");
    }
    if (countDescribed == 0) {
        return name + " is in the table and not described\n";
    }
    if (countServed == 0) {
        return name + " is described and not in the table\n";
    }
    const string& description = described.find(name)->second;
    const string& table = served.find(name)->second;
    return description == table ? "" : name + " is described as " + description + " and is " + table + "\n";
}

}  // namespace

string CheckDescription(const InterfaceServer& server, const std::vector<string>& leftOut) {
    const auto* const base = dynamic_cast<const internal::ServerBase*>(&server);
    if (base == nullptr) {
        throw osa::Exception("CheckDescription: the server has no table");
    }
    string mismatches;
    const Shapes described = DescriptionReader(mismatches).ReadInterface(base->GetDescription());
    const Shapes served = MakeShapes(base->GetMembers());
    std::set<string> names;
    for (const Shapes* shapes : {&described, &served}) {
        for (const auto& shape : *shapes) {
            names.insert(shape.first);
        }
    }
    for (const string& name : leftOut) {
        if (served.count("method " + name) + served.count("signal " + name) == 0) {
            mismatches += name + " is left out on purpose, but not in the table\n";
        }
    }
    for (const string& name : names) {
        const bool isLeftOut = std::count(leftOut.begin(), leftOut.end(), name.substr(7)) != 0;
        mismatches += isLeftOut && described.count(name) == 0 ? "" : CompareShapes(name, described, served);
    }
    return mismatches;
}

}  // namespace zarip::interfaces
