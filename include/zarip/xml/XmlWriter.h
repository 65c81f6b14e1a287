// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <ostream>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::xml {

/// Writes a document piece by piece. `XmlDocument` and `XmlReader` can read the result. *One thread at a
/// time.*
///
/// States: *before the root*, when `StartDocument` may be called once; *in an element* between its
/// `StartElement` and `EndElement`, which nest; *complete* after the root element or `EndDocument`.
///
/// Everything that these two classes could not read is refused before any of it is written, with an
/// `XmlException`: "invalid name '...'", "invalid text" (not UTF-8, or a control character), "invalid
/// namespace '...' '...'" (one of XML's own, not a URI, or a prefix without a namespace), "invalid comment",
/// "attribute '...' twice", "attributes must precede the content of an element", "xml:id is not a name",
/// "xml:id is not the only one of its value", "no element is open", "elements are nested too deep", "the
/// document is complete", and the messages for the limits of `XmlDocument`. Special characters are escaped.
///
/// A start tag is written when its content or end follows. Until then its prefixes can be declared in any
/// order. If a declaration is missing, the following call throws "undeclared prefix '...'", and the
/// declaration can still be made.
class ZARIP_EXPORT XmlWriter {
public:
    /// Writes to a stream, *not owned*, which must outlive the writer.
    /// @param indent  writes each element on a line of its own. Nothing is inserted after a text in the same
    ///     element. Do not indent if text may follow a child element.
    explicit XmlWriter(std::ostream& stream, bool indent = false);
    XmlWriter(const XmlWriter&) = delete;
    XmlWriter& operator=(const XmlWriter&) = delete;

    /// Does not complete the document. Never throws.
    ~XmlWriter();

    /// Writes the XML declaration, which is optional. It must be the first call.
    void StartDocument();

    /// @param name  includes the prefix if the namespace has one; declare the prefix with `Namespace`.
    void StartElement(const std::string& name);
    void EndElement();

    /// Writes an element that contains only a text.
    void Element(const std::string& name, const std::string& text);

    /// Adds an attribute to the element that was started last, before any content is written. A name "xmlns"
    /// or "xmlns:..." declares a namespace, as `Namespace` does.
    void Attribute(const std::string& name, const std::string& value);

    /// Declares a namespace for the element that was started last, before any content is written.
    /// @param prefix  empty for the default namespace.
    void Namespace(const std::string& prefix, const std::string& uri);

    void Text(const std::string& text);

    /// Writes a CDATA section, or several sections if one cannot contain the text.
    void CData(const std::string& text);
    void Comment(const std::string& text);

    /// Ends all open elements, passes everything to the stream and flushes the stream. Throws
    /// `osa::IOException` "XmlWriter: writing failed" if the stream or its file has not accepted everything.
    void EndDocument();

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::xml
