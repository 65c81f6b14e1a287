// SPDX-License-Identifier: MIT

#pragma once

#include <istream>
#include <memory>
#include <string>
#include <string_view>

#include <zarip/osa/Export.h>

namespace zarip::xml {

/// Reads a document of any length node by node, with the memory of a small part of it. *One thread at a
/// time.* It is as safe with documents from strangers as `XmlDocument`, has the same limits and throws the
/// same `XmlException`s, after it has delivered all nodes before the error. There is one difference: two
/// equal `xml:id` are only found among the first 4096 of a document.
class ZARIP_EXPORT XmlReader {
public:
    enum NodeType {
        kNone,  ///< before the first and after the last node
        kElement,
        kEndElement,
        kText,
        kCData,
        kWhitespace,
        kComment,
        kProcessingInstruction,
        kOther,
    };

    /// Reads a text, which it copies.
    explicit XmlReader(std::string_view text);

    /// Reads a stream, *not owned*, which must outlive the reader. The reader takes the bytes that have
    /// arrived and waits for more only if they contain no further node. A text node is complete when the
    /// markup after it has arrived. `Read` throws `osa::IOException` "XmlReader: reading failed" if the
    /// stream fails or its buffer throws.
    explicit XmlReader(std::istream& stream);
    XmlReader(const XmlReader&) = delete;
    XmlReader& operator=(const XmlReader&) = delete;
    ~XmlReader();

    /// Moves to the next node. Returns false at the end of the document.
    bool Read();

    /// Skips the current element with its content and moves to the next node. Returns false at the end of the
    /// document.
    bool Skip();

    NodeType GetNodeType() const;

    /// These functions return views that are valid until the next `Read`, and empty if the node has no such
    /// value. The name of a text is "#text", that of a CDATA section "#cdata-section" and that of a comment
    /// "#comment".
    std::string_view GetName() const;  ///< includes the prefix
    std::string_view GetLocalName() const;
    std::string_view GetNamespaceUri() const;
    std::string_view GetValue() const;

    /// Returns the number of elements around the node, which is 0 for the root element.
    int GetDepth() const;

    /// Returns whether the element is written as `<name/>`; then no kEndElement follows.
    bool IsEmptyElement() const;

    /// Stores the value of an attribute. Returns false and does not change `value` if there is no such
    /// attribute or the node is not the start of an element.
    /// @param name  the name as it is written, with its prefix; "xmlns" and "xmlns:..." are the declarations.
    bool GetAttribute(const char* name, std::string& value) const;

    /// @param namespaceUri  empty or null for an attribute without a namespace, which has no prefix.
    bool GetAttribute(const char* localName, const char* namespaceUri, std::string& value) const;

    /// Returns the text of the current element and moves to its end. Throws "element '<name>' holds more than
    /// text" if it contains an element.
    std::string ReadText();

    /// Returns the line on which the node begins, from 1. For an element it is the line on which its tag
    /// ends. Returns 0 before the first node.
    unsigned int GetLine() const;

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::xml
