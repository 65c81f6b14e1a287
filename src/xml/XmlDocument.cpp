#include "zarip/xml/XmlDocument.h"

#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/xmlsave.h>

#include <climits>

#include "xml/XmlDocumentImpl.h"
#include "xml/XmlText.h"
#include "zarip/osa/FileUtils.h"
#include "zarip/xml/XmlException.h"

namespace zarip::xml {

namespace {

struct ContextDelete {
    void operator()(xmlParserCtxt* context) const { xmlFreeParserCtxt(context); }
};

/// In place of the handler that would keep the declaration: what is never declared is never expanded.
void RefuseEntity(void* context, const xmlChar* /*name*/, int /*type*/, const xmlChar* /*publicId*/,
                  const xmlChar* /*systemId*/, xmlChar* /*content*/) {
    auto* const parser = static_cast<xmlParserCtxt*>(context);
    parser->_private = parser;  // remembered: the parser's own error is then about something else
    xmlStopParser(parser);
}

constexpr int kOptions = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_BIG_LINES;

}  // namespace

XmlDocument::XmlDocument(std::unique_ptr<Impl> impl) : _impl(std::move(impl)) {}
XmlDocument::XmlDocument(XmlDocument&& other) noexcept = default;
XmlDocument& XmlDocument::operator=(XmlDocument&& other) noexcept = default;
XmlDocument::~XmlDocument() = default;

XmlDocument::XmlDocument(const std::string& rootName, const std::string& namespaceUri) {
    InitializeXml();
    CheckName(rootName, false);
    CheckText(namespaceUri);
    _impl = std::make_unique<Impl>(xmlNewDoc(ToXml("1.0")));
    xmlNode* const root = xmlNewDocNode(_impl->document.get(), nullptr, ToXml(rootName), nullptr);
    xmlDocSetRootElement(_impl->document.get(), root);
    if (!namespaceUri.empty()) {
        xmlSetNs(root, xmlNewNs(root, ToXml(namespaceUri), nullptr));
    }
}

XmlDocument XmlDocument::Parse(std::string_view text) {
    InitializeXml();
    if (text.size() > INT_MAX) {
        throw XmlException("the document is too large");
    }
    const std::unique_ptr<xmlParserCtxt, ContextDelete> context(xmlNewParserCtxt());
    context->sax->entityDecl = RefuseEntity;
    context->sax->unparsedEntityDecl = nullptr;
    auto impl = std::make_unique<Impl>(xmlCtxtReadMemory(
        context.get(), text.data(), static_cast<int>(text.size()), nullptr, nullptr, kOptions));
    if (context->_private != nullptr) {
        const xmlParserInput* const input = context->input;
        throw XmlException(kNoEntities, input != nullptr ? static_cast<unsigned int>(input->line) : 1,
                           input != nullptr ? static_cast<unsigned int>(input->col) : 1);
    }
    if (!impl->document) {
        ThrowError(xmlCtxtGetLastError(context.get()));
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
    xmlChar* text = nullptr;
    int length = 0;
    xmlDocDumpFormatMemoryEnc(_impl->document.get(), &text, &length, "UTF-8", indent ? 1 : 0);
    if (text == nullptr) {
        throw XmlException("the document could not be written");
    }
    return TakeString(text);
}

void XmlDocument::SaveFile(const std::string& path, bool indent) const {
    osa::FileUtils::WriteAtomically(path, ToString(indent));
}

}  // namespace zarip::xml
