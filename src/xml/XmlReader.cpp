#include "zarip/xml/XmlReader.h"

#include <libxml/parser.h>
#include <libxml/xmlreader.h>

#include <algorithm>
#include <climits>
#include <exception>

#include "xml/XmlText.h"
#include "zarip/xml/XmlException.h"

namespace zarip::xml {

namespace {

constexpr int kOptions = XML_PARSE_NONET | XML_PARSE_BIG_LINES;

int ReadStream(void* stream, char* buffer, int length) {
    auto& input = *static_cast<std::istream*>(stream);
    try {
        input.read(buffer, length);
        return input.bad() ? -1 : static_cast<int>(input.gcount());
    } catch (const std::exception&) {
        return -1;  // one that throws by its mask; a C library stands between
    }
}

int LeaveStream(void* /*stream*/) {
    return 0;
}

}  // namespace

struct ZARIP_HIDDEN XmlReader::Impl {
    ~Impl() {
        xmlFreeTextReader(reader);
        xmlFreeDoc(document);
        xmlResetError(&error);
    }

    void Open(xmlTextReader* opened) {
        reader = opened;
        if (reader == nullptr) {
            throw XmlException("the document is too large");
        }
        xmlTextReaderSetStructuredErrorHandler(reader, OnError, this);
    }

    static void OnError(void* impl, xmlError* error) {
        xmlError& kept = static_cast<Impl*>(impl)->error;
        if (kept.message == nullptr && error->level >= XML_ERR_ERROR) {
            xmlCopyError(error, &kept);
        }
    }

    bool Check(int result) {
        if (!isDeclarationChecked) {
            CheckDeclarations();
        }
        if (result < 0 || error.message != nullptr) {
            ThrowError(&error);
        }
        return result == 1;
    }

    /// All declarations stand before the root element. Were entities let pass here, attributes would expand
    /// them.
    void CheckDeclarations() {
        document = xmlTextReaderCurrentDoc(reader);  // the reader no longer frees what it was asked for
        const xmlDtd* const subset = document != nullptr ? document->intSubset : nullptr;
        if (subset != nullptr && (subset->entities != nullptr || subset->pentities != nullptr)) {
            throw XmlException(kNoEntities,
                               static_cast<unsigned int>(xmlTextReaderGetParserLineNumber(reader)),
                               static_cast<unsigned int>(xmlTextReaderGetParserColumnNumber(reader)));
        }
        isDeclarationChecked = xmlTextReaderNodeType(reader) == XML_READER_TYPE_ELEMENT;
    }

    std::string text;
    xmlTextReader* reader = nullptr;
    xmlDoc* document = nullptr;
    xmlError error{};
    bool isDeclarationChecked = false;
};

XmlReader::XmlReader(std::string_view text) : _impl(std::make_unique<Impl>()) {
    InitializeXml();
    _impl->text = text;
    const bool isTooLarge = text.size() > INT_MAX;
    _impl->Open(isTooLarge ? nullptr
                           : xmlReaderForMemory(_impl->text.data(), static_cast<int>(text.size()), nullptr,
                                                nullptr, kOptions));
}

XmlReader::XmlReader(std::istream& stream) : _impl(std::make_unique<Impl>()) {
    InitializeXml();
    _impl->Open(xmlReaderForIO(ReadStream, LeaveStream, &stream, nullptr, nullptr, kOptions));
}

XmlReader::~XmlReader() = default;

bool XmlReader::Read() {
    return _impl->Check(xmlTextReaderRead(_impl->reader));
}

bool XmlReader::Skip() {
    return _impl->Check(xmlTextReaderNext(_impl->reader));
}

XmlReader::NodeType XmlReader::GetNodeType() const {
    switch (xmlTextReaderNodeType(_impl->reader)) {
        case XML_READER_TYPE_NONE:
            return kNone;
        case XML_READER_TYPE_ELEMENT:
            return kElement;
        case XML_READER_TYPE_END_ELEMENT:
            return kEndElement;
        case XML_READER_TYPE_TEXT:
            return kText;
        case XML_READER_TYPE_CDATA:
            return kCData;
        case XML_READER_TYPE_WHITESPACE:
        case XML_READER_TYPE_SIGNIFICANT_WHITESPACE:
            return kWhitespace;
        case XML_READER_TYPE_COMMENT:
            return kComment;
        case XML_READER_TYPE_PROCESSING_INSTRUCTION:
            return kProcessingInstruction;
        default:
            return kOther;
    }
}

std::string_view XmlReader::GetName() const {
    return ToView(xmlTextReaderConstName(_impl->reader));
}

std::string_view XmlReader::GetLocalName() const {
    return ToView(xmlTextReaderConstLocalName(_impl->reader));
}

std::string_view XmlReader::GetNamespaceUri() const {
    return ToView(xmlTextReaderConstNamespaceUri(_impl->reader));
}

std::string_view XmlReader::GetValue() const {
    return ToView(xmlTextReaderConstValue(_impl->reader));
}

int XmlReader::GetDepth() const {
    return xmlTextReaderDepth(_impl->reader);
}

bool XmlReader::IsEmptyElement() const {
    return xmlTextReaderIsEmptyElement(_impl->reader) == 1;
}

bool XmlReader::GetAttribute(const char* name, std::string& value) const {
    xmlChar* const found = xmlTextReaderGetAttribute(_impl->reader, ToXml(name));
    if (found == nullptr) {
        return false;
    }
    value = TakeString(found);
    return true;
}

bool XmlReader::GetAttribute(const char* localName, const char* namespaceUri, std::string& value) const {
    xmlChar* const found = xmlTextReaderGetAttributeNs(_impl->reader, ToXml(localName), ToXml(namespaceUri));
    if (found == nullptr) {
        return false;
    }
    value = TakeString(found);
    return true;
}

std::string XmlReader::ReadText() {
    const std::string name(GetName());
    std::string text;
    if (GetNodeType() != kElement || IsEmptyElement()) {
        return text;
    }
    while (Read() && GetNodeType() != kEndElement) {
        switch (GetNodeType()) {
            case kText:
            case kCData:
            case kWhitespace:
                text += GetValue();
                break;
            case kElement:
                throw XmlException("element '" + name + "' holds more than text", GetLine(), 0);
            default:
                break;
        }
    }
    return text;
}

unsigned int XmlReader::GetLine() const {
    return static_cast<unsigned int>(std::max(xmlGetLineNo(xmlTextReaderCurrentNode(_impl->reader)), 0L));
}

}  // namespace zarip::xml
