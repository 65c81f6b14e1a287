// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <zarip/osa/Export.h>
#include <zarip/xml/XmlElement.h>

namespace zarip::xml {

/// A document in memory. *One thread at a time.*
///
/// It is safe with documents from strangers. Nothing is fetched, neither from the network nor from files.
/// Declarations of entities and attributes are refused ("entity declarations are not allowed", "attribute
/// declarations are not allowed"). Memory and time are proportional to the length of the document, and
/// reading ends at the first error. These limits also apply to `XmlReader` and `XmlWriter`:
///
/// - elements are nested at most 256 deep and have at most 2048 attributes ("too many attributes")
/// - at most 256 namespaces are declared for an element, by itself and by the elements around it ("too many
///   namespaces")
/// - at most 65,536 different names, with at most 50,000 bytes each ("too many different names"); in this
///   class, texts of up to three bytes and white space also count as names
/// - at most 10,000,000 bytes of text without markup, and at most 9,900,000 bytes in a tag or comment ("a tag
///   or comment of more than 9900000 bytes")
/// - no zero bytes ("zero bytes are not allowed")
///
/// The encoding must be UTF-8, UTF-16, ISO-8859-1 or US-ASCII ("encoding '...' is not supported", or "is not
/// that of the document" if the first bytes contradict the declaration). The XML declaration has at most 1024
/// bytes ("the XML declaration is too long"). Every error, also an undeclared prefix, throws `XmlException`
/// with line and column.
class ZARIP_EXPORT XmlDocument {
public:
    /// Makes a document with an empty root element.
    explicit XmlDocument(const std::string& rootName, const std::string& namespaceUri = {});
    XmlDocument(XmlDocument&& other) noexcept;
    XmlDocument& operator=(XmlDocument&& other) noexcept;
    ~XmlDocument();

    static XmlDocument Parse(std::string_view text);

    /// Parses a file. Throws what `osa::FileUtils::Read` throws if the file cannot be read.
    static XmlDocument ParseFile(const std::string& path);

    XmlElement GetRoot() const;

    /// Returns the document in UTF-8 with an XML declaration.
    /// @param indent  writes each element on a line of its own; text between elements does not change.
    std::string ToString(bool indent = false) const;

    /// Writes the document to a file, which has the complete old or new content at any time. If `ParseFile`
    /// could not read the result, for example because of two equal `xml:id`, the file is not written and the
    /// same `XmlException` is thrown. Also throws what `osa::FileUtils::WriteAtomically` throws.
    void SaveFile(const std::string& path, bool indent = true) const;

private:
    struct Impl;
    explicit XmlDocument(std::unique_ptr<Impl> impl);

    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::xml
