// SPDX-License-Identifier: MIT

#include "zarip/xml/XmlElement.h"

#include <algorithm>

#include "xml/XmlLimits.h"
#include "xml/XmlText.h"
#include "zarip/xml/XmlException.h"

namespace zarip::xml {

namespace {

xmlNode* FirstElement(xmlNode* node) {
    while (node != nullptr && node->type != XML_ELEMENT_NODE) {
        node = node->next;
    }
    return node;
}

bool HasName(const xmlNode* node, const std::string& name, const std::string* namespaceUri) {
    return ToView(node->name) == name &&
           (namespaceUri == nullptr ||
            ToView(node->ns != nullptr ? node->ns->href : nullptr) == *namespaceUri);
}

/// Returns the number of elements from the root to this one.
int CountDepth(const xmlNode* node) {
    int depth = 0;
    for (; node != nullptr && node->type == XML_ELEMENT_NODE; node = node->parent) {
        ++depth;
    }
    return depth;
}

/// Returns the next node inside `top` in the order of the document; null after the last.
const xmlNode* FindFollowing(const xmlNode* node, const xmlNode* top) {
    if (node->type == XML_ELEMENT_NODE && node->children != nullptr) {
        return node->children;
    }
    while (node != top && node->next == nullptr) {
        node = node->parent;
    }
    return node == top ? nullptr : node->next;
}

/// Returns whether a name in the element uses the prefix with a meaning from outside the element. A
/// declaration here would move that name to another namespace when the document is saved.
bool UsesPrefix(xmlNode* top, const std::string& prefix) {
    const xmlChar* const searched = prefix.empty() ? nullptr : ToXml(prefix);
    const xmlNs* const outer = xmlSearchNs(top->doc, top, searched);
    for (xmlNs* declared = top->nsDef; declared != nullptr; declared = declared->next) {
        if (declared == outer) {
            return false;  // the caller reports that it is declared already
        }
    }
    const auto isMeant = [&](const xmlNs* used) {
        return ToView(used != nullptr ? used->prefix : nullptr) == prefix;
    };
    for (const xmlNode* node = top; node != nullptr; node = FindFollowing(node, top)) {
        if (node->type != XML_ELEMENT_NODE) {
            continue;
        }
        bool isUsed = isMeant(node->ns);
        for (const xmlAttr* attribute = node->properties; attribute != nullptr; attribute = attribute->next) {
            isUsed = isUsed || (attribute->ns != nullptr && isMeant(attribute->ns));
        }
        if (isUsed && xmlSearchNs(top->doc, const_cast<xmlNode*>(node), searched) == outer) {
            return true;
        }
    }
    return false;
}

/// The declaration of a namespace in sight of an element; attributes need one that has a prefix.
xmlNs* FindNamespace(xmlNode* node, const std::string& uri, bool withPrefix) {
    if (uri == reinterpret_cast<const char*>(XML_XML_NAMESPACE)) {
        return xmlSearchNsByHref(node->doc, node, XML_XML_NAMESPACE);
    }
    for (xmlNode* around = node; around != nullptr && around->type == XML_ELEMENT_NODE;
         around = around->parent) {
        for (xmlNs* declared = around->nsDef; declared != nullptr; declared = declared->next) {
            const bool isVisible = xmlSearchNs(node->doc, node, declared->prefix) == declared;
            if (isVisible && ToView(declared->href) == uri && (!withPrefix || declared->prefix != nullptr)) {
                return declared;
            }
        }
    }
    return nullptr;
}

}  // namespace

_xmlNode* XmlElement::Node() const {
    if (_node == nullptr) {
        throw XmlException("no element");
    }
    return _node;
}

std::string XmlElement::GetName() const {
    return std::string(ToView(Node()->name));
}

std::string XmlElement::GetPrefix() const {
    return std::string(ToView(Node()->ns != nullptr ? _node->ns->prefix : nullptr));
}

std::string XmlElement::GetNamespaceUri() const {
    return std::string(ToView(Node()->ns != nullptr ? _node->ns->href : nullptr));
}

unsigned int XmlElement::GetLine() const {
    return static_cast<unsigned int>(std::max(xmlGetLineNo(Node()), 0L));
}

std::string XmlElement::GetText() const {
    return TakeString(xmlNodeGetContent(Node()));
}

void XmlElement::SetText(const std::string& text) {
    CheckText(text);
    xmlNode* const added = text.empty() ? nullptr : RequireMade(xmlNewDocText(Node()->doc, ToXml(text)));
    while (Node()->children != nullptr) {
        xmlNode* const child = _node->children;
        xmlUnlinkNode(child);
        xmlFreeNode(child);
    }
    if (added != nullptr) {
        xmlAddChild(_node, added);
    }
}

bool XmlElement::GetAttribute(const std::string& name, std::string& value,
                              const std::string& namespaceUri) const {
    const xmlAttr* const attribute = FindAttribute(Node(), name, namespaceUri);
    if (attribute == nullptr) {
        return false;
    }
    value = ValueOf(attribute);
    return true;
}

std::string XmlElement::GetAttributeOr(const std::string& name, const std::string& otherwise) const {
    std::string value = otherwise;
    GetAttribute(name, value);
    return value;
}

void XmlElement::SetAttribute(const std::string& name, const std::string& value,
                              const std::string& namespaceUri) {
    CheckName(name, false);
    if (name == "xmlns") {
        throw XmlException("invalid name '" + name + "'");  // the name would declare a namespace
    }
    CheckText(value);
    xmlNs* declared = nullptr;
    if (!namespaceUri.empty()) {
        declared = FindNamespace(Node(), namespaceUri, true);
        if (declared == nullptr) {
            throw XmlException("undeclared namespace '" + namespaceUri + "'");
        }
    }
    RequireMade(xmlSetNsProp(Node(), declared, ToXml(name), ToXml(value)));
}

bool XmlElement::RemoveAttribute(const std::string& name, const std::string& namespaceUri) {
    xmlAttr* const attribute = FindAttribute(Node(), name, namespaceUri);
    return attribute != nullptr && xmlRemoveProp(attribute) == 0;
}

std::vector<std::pair<std::string, std::string>> XmlElement::GetAttributes() const {
    std::vector<std::pair<std::string, std::string>> attributes;
    for (xmlAttr* attribute = Node()->properties; attribute != nullptr; attribute = attribute->next) {
        attributes.emplace_back(ToView(attribute->name), ValueOf(attribute));
    }
    return attributes;
}

void XmlElement::DeclareNamespace(const std::string& prefix, const std::string& namespaceUri) {
    CheckNamespace(prefix, namespaceUri);
    if (UsesPrefix(Node(), prefix)) {
        throw XmlException("prefix '" + prefix + "' is in use");
    }
    if (xmlNewNs(Node(), ToXml(namespaceUri), prefix.empty() ? nullptr : ToXml(prefix)) == nullptr) {
        throw XmlException("prefix '" + prefix + "' is declared already");
    }
}

XmlElement XmlElement::GetParent() const {
    xmlNode* const parent = Node()->parent;
    return XmlElement(parent != nullptr && parent->type == XML_ELEMENT_NODE ? parent : nullptr);
}

XmlElement XmlElement::GetNextSibling() const {
    return XmlElement(FirstElement(Node()->next));
}

XmlElement XmlElement::GetChild(const std::string& name) const {
    xmlNode* child = FirstElement(Node()->children);
    while (child != nullptr && !HasName(child, name, nullptr)) {
        child = FirstElement(child->next);
    }
    return XmlElement(child);
}

XmlElement XmlElement::GetChild(const std::string& name, const std::string& namespaceUri) const {
    xmlNode* child = FirstElement(Node()->children);
    while (child != nullptr && !HasName(child, name, &namespaceUri)) {
        child = FirstElement(child->next);
    }
    return XmlElement(child);
}

std::vector<XmlElement> XmlElement::GetChildren() const {
    std::vector<XmlElement> children;
    for (xmlNode* child = FirstElement(Node()->children); child != nullptr;
         child = FirstElement(child->next)) {
        children.push_back(XmlElement(child));
    }
    return children;
}

std::vector<XmlElement> XmlElement::GetChildren(const std::string& name) const {
    std::vector<XmlElement> children = GetChildren();
    children.erase(std::remove_if(children.begin(), children.end(),
                                  [&name](XmlElement child) { return !HasName(child._node, name, nullptr); }),
                   children.end());
    return children;
}

XmlElement XmlElement::Add(const std::string& name, const std::string* namespaceUri) {
    CheckName(name, false);
    if (CountDepth(Node()) >= kMaxDepth) {
        throw XmlException("elements are nested too deep");
    }
    xmlNs* declared = Node()->ns;
    const bool isOther =
        namespaceUri != nullptr && ToView(declared != nullptr ? declared->href : nullptr) != *namespaceUri;
    if (isOther) {
        CheckNamespace({}, *namespaceUri);
        declared = namespaceUri->empty() ? nullptr : FindNamespace(_node, *namespaceUri, false);
    }
    xmlNode* const child = RequireMade(xmlNewDocNode(_node->doc, declared, ToXml(name), nullptr));
    if (isOther && declared == nullptr) {
        // Of no namespace where a default one is declared around, or of one that is new here.
        if (!namespaceUri->empty() || xmlSearchNs(_node->doc, _node, nullptr) != nullptr) {
            xmlNs* const added = xmlNewNs(child, ToXml(*namespaceUri), nullptr);
            if (added == nullptr) {
                xmlFreeNode(child);
                throw std::bad_alloc();
            }
            xmlSetNs(child, added);
        }
    }
    xmlAddChild(_node, child);
    return XmlElement(child);
}

XmlElement XmlElement::AddChild(const std::string& name) {
    return Add(name, nullptr);
}

XmlElement XmlElement::AddChild(const std::string& name, const std::string& namespaceUri) {
    return Add(name, &namespaceUri);
}

void XmlElement::RemoveChild(XmlElement child) {
    if (child.Node()->parent != Node()) {
        throw XmlException("not a child");
    }
    xmlUnlinkNode(child._node);
    xmlFreeNode(child._node);
}

}  // namespace zarip::xml
