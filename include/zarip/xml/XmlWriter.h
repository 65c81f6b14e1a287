#pragma once

#include <memory>
#include <ostream>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::xml {

/// Writes a document piece by piece. *One thread at a time.*
///
/// What cannot stand in a document is refused: `XmlException` "invalid name '...'", "invalid text" (not
/// UTF-8, or a control character), "invalid namespace '...' '...'" (one of XML's own, or a prefix without
/// any), "invalid comment", "attribute '...' twice", "attributes stand at the beginning of an element", "no
/// element is open", "the document is complete". Special characters are escaped as they must be.
class ZARIP_EXPORT XmlWriter {
public:
    /// Writes to a stream, *not owned*, which must outlive the writer. @param indent  an element a line.
    explicit XmlWriter(std::ostream& stream, bool indent = false);
    XmlWriter(const XmlWriter&) = delete;
    XmlWriter& operator=(const XmlWriter&) = delete;

    /// Does not complete the document; never throws.
    ~XmlWriter();

    /// The XML declaration; only at the very beginning, and not needed.
    void StartDocument();

    /// @param name  with a prefix where the namespace has one: declare it with `Namespace`.
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

    /// Divides the text into several sections where one could not hold it.
    void CData(const std::string& text);
    void Comment(const std::string& text);

    /// Ends what is open and hands everything to the stream. Throws `osa::IOException` "XmlWriter: writing
    /// failed" when the stream has not taken all of it.
    void EndDocument();

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::xml
