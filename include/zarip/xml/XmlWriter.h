// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <ostream>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::xml {

/// Writes a document piece by piece, which `XmlDocument` and `XmlReader` can read. *One thread at a time.*
///
/// What they could not read is refused before anything of it is written: `XmlException` "invalid name '...'",
/// "invalid text" (not UTF-8, or a control character), "invalid namespace '...' '...'" (one of XML's own, no
/// URI, or a prefix without any), "invalid comment", "attribute '...' twice", "attributes stand at the
/// beginning of an element", "xml:id is not a name", "xml:id is not the only one of its value", "no element
/// is open", "elements are nested too deep", "the document is complete", and the limits of `XmlDocument`.
/// Special characters are escaped as they must be.
///
/// A start tag is written when something follows it. Until then its prefixes may be declared in any order;
/// the call that follows throws "undeclared prefix '...'", and the missing declaration can still be made.
class ZARIP_EXPORT XmlWriter {
public:
    /// Writes to a stream, *not owned*, which must outlive the writer.
    /// @param indent  an element a line. Nothing is put between a text and what comes after it in the same
    /// element; in an element where text may come after a child, do not indent.
    explicit XmlWriter(std::ostream& stream, bool indent = false);
    XmlWriter(const XmlWriter&) = delete;
    XmlWriter& operator=(const XmlWriter&) = delete;

    /// Does not complete the document; never throws.
    ~XmlWriter();

    /// The XML declaration; only at the very beginning, and not needed.
    void StartDocument();

    /// @param name  with a prefix if its namespace has one: declare that with `Namespace`.
    void StartElement(const std::string& name);
    void EndElement();

    /// An element with a text and nothing else.
    void Element(const std::string& name, const std::string& text);

    /// For the element that was started last, before anything is written into it. A name "xmlns" or
    /// "xmlns:..." is a declaration, as `Namespace` makes it.
    void Attribute(const std::string& name, const std::string& value);

    /// Declares a namespace, the same way. @param prefix  empty for the default one.
    void Namespace(const std::string& prefix, const std::string& uri);

    void Text(const std::string& text);

    /// Divides the text into several sections if one could not hold it.
    void CData(const std::string& text);
    void Comment(const std::string& text);

    /// Ends what is open, hands everything to the stream and flushes that. Throws `osa::IOException`
    /// "XmlWriter: writing failed" when the stream, or its file, has not taken all of it.
    void EndDocument();

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::xml
