#pragma once

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace zarip::test {

/// An introspection document.
class Description {
public:
    explicit Description(const std::string& xml)
        : _document(xmlReadMemory(xml.data(), static_cast<int>(xml.size()), "", nullptr, XML_PARSE_NONET),
                    &xmlFreeDoc) {
        if (!_document) {
            throw std::runtime_error("not XML: " + xml);
        }
    }

    static Description OfFile(const std::string& interface) {
        std::ifstream file(INTERFACES + interface + ".xml");
        std::ostringstream text;
        text << file.rdbuf();
        return Description(text.str());
    }

    std::string GetPath() const { return Attribute(Root(), "name"); }

    std::vector<std::string> GetInterfaces() const { return Names(Root(), "interface"); }
    std::vector<std::string> GetChildren() const { return Names(Root(), "node"); }

    /// In the order of the document: "Member(in)->(out)", "Member(in) one-way", "signal Member(arguments)".
    std::vector<std::string> GetMembers(const std::string& interface) const {
        std::vector<std::string> members;
        for (xmlNode* node : Elements(Root())) {
            if (Attribute(node, "name") == interface) {
                for (xmlNode* member : Elements(node)) {
                    members.push_back(Show(member));
                }
            }
        }
        return members;
    }

private:
    static std::string Name(xmlNode* node) { return reinterpret_cast<const char*>(node->name); }
    static std::string Attribute(xmlNode* node, const char* name) {
        const std::unique_ptr<xmlChar, void (*)(void*)> value(
            xmlGetProp(node, reinterpret_cast<const xmlChar*>(name)), xmlFree);
        return value ? reinterpret_cast<const char*>(value.get()) : "";
    }
    static std::vector<xmlNode*> Elements(xmlNode* parent) {
        std::vector<xmlNode*> elements;
        for (xmlNode* node = xmlFirstElementChild(parent); node != nullptr;
             node = xmlNextElementSibling(node)) {
            elements.push_back(node);
        }
        return elements;
    }
    static std::vector<std::string> Names(xmlNode* parent, const char* kind) {
        std::vector<std::string> names;
        for (xmlNode* node : Elements(parent)) {
            if (Name(node) == kind) {
                names.push_back(Attribute(node, "name"));
            }
        }
        return names;
    }
    static std::string Show(xmlNode* member) {
        std::string in;
        std::string out;
        std::set<std::string> inNames{""};  // no argument is without a name
        std::set<std::string> outNames{""};
        bool oneWay = false;
        const bool isSignal = Name(member) == "signal";
        EXPECT_TRUE(isSignal || Name(member) == "method");
        for (xmlNode* node : Elements(member)) {
            if (Name(node) == "arg") {
                const std::string direction = Attribute(node, "direction");
                EXPECT_TRUE(isSignal ? direction.empty() : direction == "in" || direction == "out");
                const bool isOut = direction == "out";
                (isOut ? out : in) += Attribute(node, "type");
                EXPECT_TRUE((isOut ? outNames : inNames).insert(Attribute(node, "name")).second)
                    << Attribute(member, "name");
            } else {
                EXPECT_EQ(Name(node) + Attribute(node, "name") + Attribute(node, "value"),
                          "annotationorg.freedesktop.DBus.Method.NoReplytrue");
                oneWay = true;
            }
        }
        const std::string call = Attribute(member, "name") + "(" + in + ")";
        return isSignal ? "signal " + call : call + (oneWay ? " one-way" + out : "->(" + out + ")");
    }

    xmlNode* Root() const { return xmlDocGetRootElement(_document.get()); }

    std::unique_ptr<xmlDoc, void (*)(xmlDoc*)> _document;
};

}  // namespace zarip::test
