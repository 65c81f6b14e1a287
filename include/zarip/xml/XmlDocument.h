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
/// Made for documents from strangers: nothing is fetched, neither from the network nor from files, and
/// entities and attributes that a document declares are refused ("entity declarations are not allowed",
/// "attribute declarations are not allowed"). A document takes memory and time in proportion to its length
/// and no more, and reading ends at the first error. It has limits, which `XmlReader` and `XmlWriter` share:
///
/// - elements are nested 256 deep, and have 2048 attributes ("too many attributes")
/// - 256 namespaces are declared for an element, by it and by those around ("too many namespaces")
/// - 65,536 different names, of 50,000 bytes each ("too many different names"); here, texts of up to three
///   bytes and white space count, too
/// - 10,000,000 bytes of text without markup, 9,900,000 of a tag or a comment ("a tag or comment of more than
///   9900000 bytes")
/// - no zero bytes ("zero bytes are not allowed")
///
/// It is in UTF-8, UTF-16, ISO-8859-1 or US-ASCII ("encoding '...' is not supported", or "is not that of the
/// document" when its first bytes show another), and its XML declaration has 1024 bytes at most ("the XML
/// declaration is too long"). Whatever is wrong, a prefix without a namespace included, throws `XmlException`
/// with line and column.
class ZARIP_EXPORT XmlDocument {
public:
    /// A new document with an empty root element.
    explicit XmlDocument(const std::string& rootName, const std::string& namespaceUri = {});
    XmlDocument(XmlDocument&& other) noexcept;
    XmlDocument& operator=(XmlDocument&& other) noexcept;
    ~XmlDocument();

    static XmlDocument Parse(std::string_view text);

    /// Throws `osa::IOException` as `osa::FileUtils::Read` for a file that cannot be read.
    static XmlDocument ParseFile(const std::string& path);

    XmlElement GetRoot() const;

    /// As UTF-8, with an XML declaration. @param indent  an element a line; text between elements keeps its
    /// form.
    std::string ToString(bool indent = false) const;

    /// Writes it to a file, which has the old content or the new whatever happens. What `ParseFile` could not
    /// read is not written: the same `XmlException` is thrown then, for two equal `xml:id` for example.
    /// Throws `osa::IOException` as `osa::FileUtils::WriteAtomically`.
    void SaveFile(const std::string& path, bool indent = true) const;

private:
    struct Impl;
    explicit XmlDocument(std::unique_ptr<Impl> impl);

    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::xml
