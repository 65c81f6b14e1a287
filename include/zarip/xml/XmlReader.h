#pragma once

#include <istream>
#include <memory>
#include <string>
#include <string_view>

#include <zarip/osa/Export.h>

namespace zarip::xml {

/// Reads a document piece by piece, whatever its length, with the memory of the piece. *One thread at a
/// time.* Safe with documents from strangers as `XmlDocument` is, and throws `XmlException` as that does;
/// only a single text may be as long as the document. A comment or a CDATA section counts as an element where
/// attributes are limited: it may not look like 4096 of them. The first element begins within 256 KiB ("too
/// much before the first element").
class ZARIP_EXPORT XmlReader {
public:
    enum NodeType {
        kNone,  ///< before the first and behind the last
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

    /// Reads a stream, *not owned*, which must outlive the reader.
    explicit XmlReader(std::istream& stream);
    XmlReader(const XmlReader&) = delete;
    XmlReader& operator=(const XmlReader&) = delete;
    ~XmlReader();

    /// Goes to the next node; false at the end of the document.
    bool Read();

    /// Goes on behind the element that it stands on, with all inside; false at the end.
    bool Skip();

    NodeType GetNodeType() const;

    /// These are valid until the next `Read`; empty where the node has none.
    std::string_view GetName() const;  ///< with its prefix
    std::string_view GetLocalName() const;
    std::string_view GetNamespaceUri() const;
    std::string_view GetValue() const;

    /// 0 for the root element.
    int GetDepth() const;

    /// Whether the element is written as `<name/>`; then no kEndElement follows.
    bool IsEmptyElement() const;

    /// False when the element has no such attribute; `value` stays as it is then.
    bool GetAttribute(const char* name, std::string& value) const;
    bool GetAttribute(const char* localName, const char* namespaceUri, std::string& value) const;

    /// The text inside the element that it stands on; goes on to its end. Throws "element '<name>' holds
    /// more than text" when there is an element inside.
    std::string ReadText();

    /// Where the node stands, from 1; 0 before the first.
    unsigned int GetLine() const;

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::xml
