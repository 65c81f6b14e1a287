// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <utility>
#include <vector>

#include <zarip/osa/Export.h>

struct _xmlNode;

namespace zarip::xml {

/// A reference to an element of an `XmlDocument`, which is cheap to copy and does not own the element. It is
/// valid until the element or an element around it is removed, or the document is destroyed. *One thread at a
/// time* for a whole document.
///
/// Names are local names. `namespaceUri` is the name of a namespace; an empty string means no namespace.
/// Strings are UTF-8. Setters throw `XmlException` "invalid name '...'", "invalid text" (not UTF-8, or
/// control characters that XML cannot contain) and "text of more than 10000000 bytes". If the reference is
/// empty, all functions throw "no element".
class ZARIP_EXPORT XmlElement {
public:
    /// Makes an empty reference. Functions that do not find an element return it.
    XmlElement() = default;
    explicit operator bool() const { return _node != nullptr; }
    friend bool operator==(XmlElement a, XmlElement b) { return a._node == b._node; }
    friend bool operator!=(XmlElement a, XmlElement b) { return a._node != b._node; }

    std::string GetName() const;
    std::string GetPrefix() const;
    std::string GetNamespaceUri() const;

    /// Returns the line in the parsed text, from 1, or 0 for an element that was added.
    unsigned int GetLine() const;

    /// Returns the text of the element and of all elements inside it.
    std::string GetText() const;

    /// Replaces the content of the element by a text.
    void SetText(const std::string& text);

    /// Stores the value of an attribute. Returns false and does not change `value` if there is no such
    /// attribute.
    bool GetAttribute(const std::string& name, std::string& value,
                      const std::string& namespaceUri = {}) const;

    /// Returns the value of an attribute, or `otherwise` if there is no such attribute.
    std::string GetAttributeOr(const std::string& name, const std::string& otherwise) const;

    /// Adds or replaces an attribute. An attribute with a namespace gets the prefix that is declared for it
    /// by this element or an element around it. Throws "undeclared namespace '...'" if no prefix is declared.
    void SetAttribute(const std::string& name, const std::string& value,
                      const std::string& namespaceUri = {});

    /// Removes an attribute. Returns false if there is no such attribute.
    bool RemoveAttribute(const std::string& name, const std::string& namespaceUri = {});

    /// Returns names and values in the order of the document, without the declarations of namespaces.
    std::vector<std::pair<std::string, std::string>> GetAttributes() const;

    /// Declares a namespace for this element and the elements inside it. Throws "prefix '...' is declared
    /// already", or "prefix '...' is in use" if this element or one inside it uses the prefix for another
    /// namespace (or, with an empty prefix, is in no namespace). Throws "invalid namespace '...' '...'" for
    /// XML's own namespaces, for a name that is not a URI, and for a prefix without a namespace.
    /// @param prefix  empty for the default namespace.
    void DeclareNamespace(const std::string& prefix, const std::string& namespaceUri);

    XmlElement GetParent() const;
    XmlElement GetNextSibling() const;

    /// These functions return the first child with this name, in any namespace or in the given one.
    XmlElement GetChild(const std::string& name) const;
    XmlElement GetChild(const std::string& name, const std::string& namespaceUri) const;
    std::vector<XmlElement> GetChildren() const;
    std::vector<XmlElement> GetChildren(const std::string& name) const;

    /// Adds a child after the last one, in the namespace of this element unless another one is given. Throws
    /// "elements are nested too deep" after 256 levels.
    XmlElement AddChild(const std::string& name);
    XmlElement AddChild(const std::string& name, const std::string& namespaceUri);

    /// Removes a child with its content. Throws "not a child" for any other element.
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
