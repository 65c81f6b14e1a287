// SPDX-License-Identifier: MIT

#include "zarip/xml/XmlDocument.h"

#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/xmlsave.h>

#include <climits>

#include "xml/XmlDocumentImpl.h"
#include "xml/XmlScanner.h"
#include "xml/XmlText.h"
#include "xml/XmlVerdict.h"
#include "zarip/osa/FileUtils.h"
#include "zarip/xml/XmlException.h"

namespace zarip::xml {

namespace {

struct ContextDelete {
    void operator()(xmlParserCtxt* context) const { xmlFreeParserCtxt(context); }
};

/// A document that is being parsed.
struct Source {
    xmlParserCtxt* parser;
    std::string_view left;
    XmlScanner scanner{};
    XmlVerdict verdict{};
};

/// Passes the next part of the document to the parser, which calls this, after it was scanned.
int ReadSource(void* context, char* buffer, int length) {
    auto& source = *static_cast<Source*>(context);
    const std::size_t count = source.left.copy(buffer, static_cast<std::size_t>(length));
    source.left.remove_prefix(count);
    source.scanner.Scan({buffer, count});
    if (!source.scanner.IsRefused()) {
        return static_cast<int>(count);
    }
    if (source.scanner.GetRefusal() != nullptr) {
        source.verdict.Keep(source.parser, source.scanner.GetRefusal());
    }
    return -1;
}

/// Checks the number of namespaces of each element, which the scanner does not count, and passes the element
/// on.
void StartElement(void* context, const xmlChar* local, const xmlChar* prefix, const xmlChar* uri,
                  int namespaceCount, const xmlChar** namespaces, int attributeCount, int defaultedCount,
                  const xmlChar** attributes) {
    auto* const parser = static_cast<xmlParserCtxt*>(context);
    XmlVerdict& verdict = XmlVerdict::Of(parser);
    verdict.OpenElement(parser, namespaceCount);
    if (!verdict.IsBad()) {
        xmlSAX2StartElementNs(parser, local, prefix, uri, namespaceCount, namespaces, attributeCount,
                              defaultedCount, attributes);
    }
}

void EndElement(void* context, const xmlChar* local, const xmlChar* prefix, const xmlChar* uri) {
    XmlVerdict::Of(context).CloseElement();
    xmlSAX2EndElementNs(context, local, prefix, uri);
}

constexpr int kOptions = XML_PARSE_NONET | XML_PARSE_BIG_LINES;

}  // namespace

XmlDocument::XmlDocument(std::unique_ptr<Impl> impl) : _impl(std::move(impl)) {}
XmlDocument::XmlDocument(XmlDocument&& other) noexcept = default;
XmlDocument& XmlDocument::operator=(XmlDocument&& other) noexcept = default;
XmlDocument::~XmlDocument() = default;

XmlDocument::XmlDocument(const std::string& rootName, const std::string& namespaceUri) {
    InitializeXml();
    CheckName(rootName, false);
    CheckNamespace({}, namespaceUri);
    _impl = std::make_unique<Impl>();
    _impl->document.reset(RequireMade(xmlNewDoc(ToXml("1.0"))));
    xmlNode* const root =
        RequireMade(xmlNewDocNode(_impl->document.get(), nullptr, ToXml(rootName), nullptr));
    xmlDocSetRootElement(_impl->document.get(), root);
    if (!namespaceUri.empty()) {
        xmlSetNs(root, RequireMade(xmlNewNs(root, ToXml(namespaceUri), nullptr)));
    }
}

XmlDocument XmlDocument::Parse(std::string_view text) {
    InitializeXml();
    if (text.size() > INT_MAX) {
        throw XmlException("the document is too large");
    }
    auto impl = std::make_unique<Impl>();
    const ErrorScope errors;
    const std::unique_ptr<xmlParserCtxt, ContextDelete> context(RequireMade(xmlNewParserCtxt()));
    Source source{context.get(), text};
    source.verdict.Attach(*context);
    context->sax->startElementNs = StartElement;
    context->sax->endElementNs = EndElement;
    impl->document.reset(
        xmlCtxtReadIO(context.get(), ReadSource, nullptr, &source, nullptr, nullptr, kOptions));
    if (source.scanner.IsEncodingRefused()) {
        source.scanner.ThrowEncoding();
    }
    if (!source.verdict.IsBad() && !errors.GetText().empty()) {
        throw XmlException(errors.GetText());  // the parser stops at bytes that are invalid in the encoding
    }
    if (!impl->document || source.verdict.IsBad()) {
        source.verdict.Throw();
    }
    return XmlDocument(std::move(impl));
}

XmlDocument XmlDocument::ParseFile(const std::string& path) {
    return Parse(osa::FileUtils::Read(path));
}

XmlElement XmlDocument::GetRoot() const {
    return XmlElement(xmlDocGetRootElement(_impl->document.get()));
}

std::string XmlDocument::ToString(bool indent) const {
    const ErrorScope errors;
    xmlChar* text = nullptr;
    int length = 0;
    xmlDocDumpFormatMemoryEnc(_impl->document.get(), &text, &length, "UTF-8", indent ? 1 : 0);
    if (text == nullptr) {
        throw XmlException("the document could not be written");
    }
    return TakeString(text);
}

void XmlDocument::SaveFile(const std::string& path, bool indent) const {
    const std::string text = ToString(indent);
    Parse(text);  // valid parts can make an invalid document, for example with the same `xml:id` twice
    osa::FileUtils::WriteAtomically(path, text);
}

}  // namespace zarip::xml
