#include "zarip/xml/XmlDocument.h"

#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/xmlsave.h>

#include <climits>

#include "xml/XmlDocumentImpl.h"
#include "xml/XmlEncoding.h"
#include "xml/XmlText.h"
#include "zarip/osa/FileUtils.h"
#include "zarip/xml/XmlException.h"

namespace zarip::xml {

namespace {

struct ContextDelete {
    void operator()(xmlParserCtxt* context) const { xmlFreeParserCtxt(context); }
};

/// A text on its way to the parser.
struct Source {
    ~Source() { xmlResetError(&error); }

    void Refuse(const char* text) {
        if (refusal == nullptr) {
            refusal = text;
            const xmlParserInput* const input = parser->input;
            line = input != nullptr ? static_cast<unsigned int>(input->line) : 1;
            column = input != nullptr ? static_cast<unsigned int>(input->col) : 1;
        }
    }

    xmlParserCtxt* parser;
    std::string_view left;
    xmlError error{};               ///< the first one
    const char* refusal = nullptr;  ///< the parser's own error is then about something else
    unsigned int line = 0;
    unsigned int column = 0;
};

void Refuse(void* context, const char* text) {
    auto* const parser = static_cast<xmlParserCtxt*>(context);
    static_cast<Source*>(parser->_private)->Refuse(text);
    xmlStopParser(parser);
}

/// In place of the handlers that would keep the declaration: what is never declared is never expanded.
void RefuseEntity(void* context, const xmlChar* /*name*/, int /*type*/, const xmlChar* /*publicId*/,
                  const xmlChar* /*systemId*/, xmlChar* /*content*/) {
    Refuse(context, kNoEntities);
}

void RefuseUnparsed(void* context, const xmlChar* /*name*/, const xmlChar* /*publicId*/,
                    const xmlChar* /*systemId*/, const xmlChar* /*notation*/) {
    Refuse(context, kNoEntities);
}

/// Each element would be compared with all its declared attributes, and each of them with all others.
void RefuseAttribute(void* context, const xmlChar* /*element*/, const xmlChar* /*name*/, int /*type*/,
                     int /*kind*/, const xmlChar* /*value*/, xmlEnumeration* values) {
    xmlFreeEnumeration(values);
    Refuse(context, kNoAttributes);
}

void KeepError(void* context, xmlError* error) {
    xmlError& kept = static_cast<Source*>(static_cast<xmlParserCtxt*>(context)->_private)->error;
    if (kept.message == nullptr && error->level >= XML_ERR_ERROR) {
        xmlCopyError(error, &kept);
    }
}

/// The tables of the parser grow while it reads a start tag, and each attribute is compared with all before.
constexpr int kMaxAttributes = 2'048;

/// Called by the parser in the middle of what it reads, so that a start tag without end is seen in time.
int ReadSource(void* context, char* buffer, int length) {
    auto& source = *static_cast<Source*>(context);
    const xmlParserCtxt& parser = *source.parser;
    if (parser.maxatts > 5 * kMaxAttributes || parser.nsMax > 2 * kMaxAttributes) {
        source.Refuse(kTooManyAttributes);
        return -1;
    }
    const std::size_t read = source.left.copy(buffer, static_cast<std::size_t>(length));
    source.left.remove_prefix(read);
    return static_cast<int>(read);
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
    _impl->document.reset(Made(xmlNewDoc(ToXml("1.0"))));
    xmlNode* const root = Made(xmlNewDocNode(_impl->document.get(), nullptr, ToXml(rootName), nullptr));
    xmlDocSetRootElement(_impl->document.get(), root);
    if (!namespaceUri.empty()) {
        xmlSetNs(root, Made(xmlNewNs(root, ToXml(namespaceUri), nullptr)));
    }
}

XmlDocument XmlDocument::Parse(std::string_view text) {
    InitializeXml();
    if (text.size() > INT_MAX) {
        throw XmlException("the document is too large");
    }
    XmlEncoding encoding;
    if (!encoding.Add(text)) {
        encoding.Throw();
    }
    auto impl = std::make_unique<Impl>();
    const std::unique_ptr<xmlParserCtxt, ContextDelete> context(Made(xmlNewParserCtxt()));
    Source source{context.get(), text};
    context->_private = &source;
    context->sax->entityDecl = RefuseEntity;
    context->sax->unparsedEntityDecl = RefuseUnparsed;
    context->sax->attributeDecl = RefuseAttribute;
    context->sax->serror = KeepError;
    impl->document.reset(
        xmlCtxtReadIO(context.get(), ReadSource, nullptr, &source, nullptr, nullptr, kOptions));
    if (source.refusal != nullptr) {
        throw XmlException(source.refusal, source.line, source.column);
    }
    if (!impl->document || source.error.message != nullptr) {
        ThrowError(&source.error);
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
