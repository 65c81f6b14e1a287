// SPDX-License-Identifier: MIT

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

    std::vector<std::string> GetInterfaces() const { return Names(Root(), "interface"); }
    std::vector<std::string> GetChildren() const { return Names(Root(), "node"); }

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

    xmlNode* Root() const { return xmlDocGetRootElement(_document.get()); }

    std::unique_ptr<xmlDoc, void (*)(xmlDoc*)> _document;
};

}  // namespace zarip::test
