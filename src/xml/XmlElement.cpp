#include "zarip/xml/XmlElement.h"

#include <algorithm>

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

/// Null where the namespace is to be none.
const xmlChar* UriOrNull(const std::string& namespaceUri) {
    return namespaceUri.empty() ? nullptr : ToXml(namespaceUri);
}

xmlAttr* FindAttribute(xmlNode* node, const std::string& name, const std::string& namespaceUri) {
    return xmlHasNsProp(node, ToXml(name), UriOrNull(namespaceUri));
}

std::string ValueOf(xmlAttr* attribute) {
    return TakeString(xmlNodeGetContent(reinterpret_cast<xmlNode*>(attribute)));
}

/// The declaration of a namespace in sight of an element; attributes need one that has a prefix.
xmlNs* FindNamespace(xmlNode* node, const std::string& uri, bool withPrefix) {
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
    while (Node()->children != nullptr) {
        xmlNode* const child = _node->children;
        xmlUnlinkNode(child);
        xmlFreeNode(child);
    }
    if (!text.empty()) {
        xmlAddChild(_node, xmlNewDocText(_node->doc, ToXml(text)));
    }
}

bool XmlElement::GetAttribute(const std::string& name, std::string& value,
                              const std::string& namespaceUri) const {
    xmlAttr* const attribute = FindAttribute(Node(), name, namespaceUri);
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
    CheckText(value);
    xmlNs* declared = nullptr;
    if (!namespaceUri.empty()) {
        declared = FindNamespace(Node(), namespaceUri, true);
        if (declared == nullptr) {
            throw XmlException("undeclared namespace '" + namespaceUri + "'");
        }
    }
    xmlSetNsProp(Node(), declared, ToXml(name), ToXml(value));
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
    if (!prefix.empty()) {
        CheckName(prefix, false);
    }
    CheckText(namespaceUri);
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
    xmlNs* declared = Node()->ns;
    const bool isOther =
        namespaceUri != nullptr && ToView(declared != nullptr ? declared->href : nullptr) != *namespaceUri;
    if (isOther) {
        CheckText(*namespaceUri);
        declared = namespaceUri->empty() ? nullptr : FindNamespace(_node, *namespaceUri, false);
    }
    xmlNode* const child = xmlNewDocNode(_node->doc, declared, ToXml(name), nullptr);
    xmlAddChild(_node, child);
    if (isOther && declared == nullptr) {
        // Of no namespace where a default one is declared around, or of one that is new here.
        if (!namespaceUri->empty() || xmlSearchNs(_node->doc, _node, nullptr) != nullptr) {
            xmlSetNs(child, xmlNewNs(child, ToXml(*namespaceUri), nullptr));
        }
    }
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
