// SPDX-License-Identifier: MIT

#pragma once

#include <istream>
#include <memory>
#include <string>
#include <string_view>

#include <zarip/osa/Export.h>

namespace zarip::xml {

/// Reads a document piece by piece, whatever its length, with the memory of the piece. *One thread at a
/// time.* It is as safe with documents from strangers as `XmlDocument` is, has the same limits and throws the
/// same `XmlException`, after it has delivered what stands before the error. It differs in one thing: two
/// equal `xml:id` are found if they are among the first 4096 of a document.
class ZARIP_EXPORT XmlReader {
public:
    enum NodeType {
        kNone,  ///< before the first and after the last
        kElement,
        kEndElement,
        kText,
        kCData,
        kWhitespace,
        kComment,
        kProcessingInstruction,
        kOther,
    };

    /// Reads a text, which is copied.
    explicit XmlReader(std::string_view text);

    /// Reads a stream, *not owned*, which must outlive the reader. It takes what has arrived and waits for
    /// more only when that holds no further node: a text is there when the markup after it is. `Read` throws
    /// `osa::IOException` "XmlReader: reading failed" for a stream that fails or whose buffer throws.
    explicit XmlReader(std::istream& stream);
    XmlReader(const XmlReader&) = delete;
    XmlReader& operator=(const XmlReader&) = delete;
    ~XmlReader();

    /// Goes to the next node; false at the end of the document.
    bool Read();

    /// Goes to the node after the element that it stands on, with all inside; false at the end.
    bool Skip();

    NodeType GetNodeType() const;

    /// These are valid until the next `Read`; empty if the node has none. The name of a text is "#text", that
    /// of a section "#cdata-section" and that of a comment "#comment".
    std::string_view GetName() const;  ///< with its prefix
    std::string_view GetLocalName() const;
    std::string_view GetNamespaceUri() const;
    std::string_view GetValue() const;

    /// 0 for the root element.
    int GetDepth() const;

    /// Whether the element is written as `<name/>`; then no kEndElement follows.
    bool IsEmptyElement() const;

    /// False when the element has no such attribute, and at its end; `value` stays as it is then.
    /// @param name  as it is written, with its prefix; "xmlns" and "xmlns:..." are the declarations.
    bool GetAttribute(const char* name, std::string& value) const;

    /// @param namespaceUri  empty or null for an attribute of no namespace, which has no prefix.
    bool GetAttribute(const char* localName, const char* namespaceUri, std::string& value) const;

    /// The text inside the element that it stands on; goes to its end. Throws "element '<name>' holds
    /// more than text" when there is an element inside.
    std::string ReadText();

    /// The line on which the node begins, for an element that on which its tag ends, from 1; 0 before the
    /// first.
    unsigned int GetLine() const;

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::xml
