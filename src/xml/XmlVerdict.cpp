// SPDX-License-Identifier: MIT

#include "xml/XmlVerdict.h"

#include <algorithm>

#include "xml/XmlLimits.h"
#include "xml/XmlText.h"
#include "zarip/xml/XmlException.h"

namespace zarip::xml {

namespace {

void RefuseEntity(void* parser, const xmlChar* /*name*/, int /*type*/, const xmlChar* /*publicId*/,
                  const xmlChar* /*systemId*/, xmlChar* /*content*/) {
    XmlVerdict::Of(parser).Refuse(static_cast<xmlParserCtxt*>(parser), kNoEntities);
}

void RefuseUnparsed(void* parser, const xmlChar* /*name*/, const xmlChar* /*publicId*/,
                    const xmlChar* /*systemId*/, const xmlChar* /*notation*/) {
    XmlVerdict::Of(parser).Refuse(static_cast<xmlParserCtxt*>(parser), kNoEntities);
}

/// libxml2 would compare each element with all its declared attributes, and each of them with all others.
void RefuseAttribute(void* parser, const xmlChar* /*element*/, const xmlChar* /*name*/, int /*type*/,
                     int /*kind*/, const xmlChar* /*value*/, xmlEnumeration* values) {
    xmlFreeEnumeration(values);
    XmlVerdict::Of(parser).Refuse(static_cast<xmlParserCtxt*>(parser), kNoAttributes);
}

void Stop(xmlParserCtxt* parser) {
#if LIBXML_VERSION >= 21400
    xmlStopParser(parser);
#else
    // In these versions xmlStopParser also frees the input, which the callers of the handlers still use.
    parser->instate = XML_PARSER_EOF;
    parser->disableSAX = 1;
#endif
}

}  // namespace

void XmlVerdict::Attach(xmlParserCtxt& parser) {
    parser._private = this;
    parser.sax->serror = OnError;
    parser.sax->entityDecl = RefuseEntity;
    parser.sax->unparsedEntityDecl = RefuseUnparsed;
    parser.sax->attributeDecl = RefuseAttribute;
}

void XmlVerdict::OnError(void* parser, ReportedError error) {
    XmlVerdict& verdict = Of(parser);
    if (error->level >= XML_ERR_ERROR && !verdict.IsBad()) {
        xmlCopyError(error, &verdict._error);
        Stop(static_cast<xmlParserCtxt*>(parser));  // stopping may report another error
    }
}

void XmlVerdict::Refuse(xmlParserCtxt* parser, const char* reason) {
    Keep(parser, reason);
    Stop(parser);
}

void XmlVerdict::Keep(const xmlParserCtxt* parser, const char* reason) {
    if (!IsBad()) {
        _refusal = reason;
        const xmlParserInput* const input = parser->input;
        _line = static_cast<unsigned int>(input != nullptr ? std::max(input->line, 1) : 1);
        _column = static_cast<unsigned int>(input != nullptr ? std::max(input->col, 1) : 1);
    }
}

void XmlVerdict::OpenElement(xmlParserCtxt* parser, int namespaces) {
    if (_depth == _namespaces.size()) {
        Refuse(parser, kTooDeep);
        return;
    }
    const int around = _depth == 0 ? 0 : _namespaces[_depth - 1];
    _namespaces[_depth++] = around + namespaces;
    if (around + namespaces > kMaxNamespaces) {
        Refuse(parser, kTooManyNamespaces);
    } else if (xmlDictSize(parser->dict) > kMaxNames) {
        Refuse(parser, kTooManyNames);
    }
}

void XmlVerdict::CloseElement() {
    --_depth;
}

void XmlVerdict::Throw() const {
    if (_refusal != nullptr) {
        throw XmlException(_refusal, _line, _column);
    }
    ThrowError(&_error);
}

}  // namespace zarip::xml
