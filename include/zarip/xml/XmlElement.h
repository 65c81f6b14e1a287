// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <utility>
#include <vector>

#include <zarip/osa/Export.h>

struct _xmlNode;

namespace zarip::xml {

/// An element of an `XmlDocument`: a reference, cheap to copy, *not owned*. It is valid until the element, or
/// one around it, is removed, and until the document ends. *One thread at a time* for a whole document.
///
/// Names are local names; `namespaceUri` is the name of a namespace, empty for none. Text is UTF-8. Setters
/// throw `XmlException` "invalid name '...'", "invalid text" (for what is not UTF-8 and for control
/// characters that XML cannot hold) and "text of more than 10000000 bytes"; all functions throw "no element"
/// for a reference to nothing.
class ZARIP_EXPORT XmlElement {
public:
    /// Refers to nothing; what looks for an element and finds none returns this.
    XmlElement() = default;
    explicit operator bool() const { return _node != nullptr; }
    friend bool operator==(XmlElement a, XmlElement b) { return a._node == b._node; }
    friend bool operator!=(XmlElement a, XmlElement b) { return a._node != b._node; }

    std::string GetName() const;
    std::string GetPrefix() const;
    std::string GetNamespaceUri() const;

    /// In the text that was parsed, from 1; 0 for an element that was added.
    unsigned int GetLine() const;

    /// All text inside, that of the elements below included.
    std::string GetText() const;

    /// Replaces everything inside by a text.
    void SetText(const std::string& text);

    /// False when there is no such attribute; `value` stays as it is then.
    bool GetAttribute(const std::string& name, std::string& value,
                      const std::string& namespaceUri = {}) const;

    /// The value of an attribute, or `otherwise`.
    std::string GetAttributeOr(const std::string& name, const std::string& otherwise) const;

    /// Adds or replaces it. One with a namespace takes the prefix that is declared for it here or around, and
    /// throws "undeclared namespace '...'" if no prefix is declared.
    void SetAttribute(const std::string& name, const std::string& value,
                      const std::string& namespaceUri = {});

    /// False when there was none.
    bool RemoveAttribute(const std::string& name, const std::string& namespaceUri = {});

    /// Names and values in the order of the document; declarations of namespaces are left out.
    std::vector<std::pair<std::string, std::string>> GetAttributes() const;

    /// Declares a namespace for this element and those inside. @param prefix  empty for the default one.
    /// Throws "prefix '...' is declared already", "prefix '...' is in use" when this element or one inside
    /// means another namespace by it, or, for the default one, none, and "invalid namespace '...' '...'" for
    /// XML's own, for one that is not a URI and for a prefix without a namespace.
    void DeclareNamespace(const std::string& prefix, const std::string& namespaceUri);

    XmlElement GetParent() const;
    XmlElement GetNextSibling() const;

    /// The first child of this name, of the namespace given or of any.
    XmlElement GetChild(const std::string& name) const;
    XmlElement GetChild(const std::string& name, const std::string& namespaceUri) const;
    std::vector<XmlElement> GetChildren() const;
    std::vector<XmlElement> GetChildren(const std::string& name) const;

    /// Adds a child after the others, in the namespace of this element unless another is given. Throws
    /// "elements are nested too deep" after 256.
    XmlElement AddChild(const std::string& name);
    XmlElement AddChild(const std::string& name, const std::string& namespaceUri);

    /// Removes a child and all inside it; throws "not a child" for another element.
    void RemoveChild(XmlElement child);

private:
    friend class XmlDocument;
    friend class XmlXPathExpression;

    explicit XmlElement(_xmlNode* node) : _node(node) {}
    _xmlNode* Node() const;
    XmlElement Add(const std::string& name, const std::string* namespaceUri);

    _xmlNode* _node = nullptr;
};

}  // namespace zarip::xml
