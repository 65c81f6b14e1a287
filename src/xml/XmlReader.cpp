#include "zarip/xml/XmlReader.h"

#include <libxml/parser.h>
#include <libxml/xmlreader.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <exception>

#include "xml/XmlEncoding.h"
#include "xml/XmlText.h"
#include "zarip/xml/XmlException.h"

namespace zarip::xml {

namespace {

constexpr int kOptions = XML_PARSE_NONET | XML_PARSE_BIG_LINES;

/// Until the first element: what is declared counts for all behind it that is read before it is looked at.
constexpr int kFirstPiece = 16;
constexpr std::size_t kMaxBeginning = 256 * 1024;

/// The parser waits for the end of a start tag, and compares each attribute in it with all before.
constexpr int kMaxAttributes = 4'096;

/// Also what stands beside an ASCII character in UTF-16.
constexpr std::string_view kSpaces(" \t\r\n\0", 5);

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

    void Open() {
        InitializeXml();
        const ErrorScope errors;
        reader = Made(xmlReaderForIO(ReadSource, LeaveStream, this, nullptr, nullptr, kOptions));
        xmlTextReaderSetStructuredErrorHandler(reader, OnError, this);
    }

    static int ReadSource(void* impl, char* buffer, int length) {
        return static_cast<Impl*>(impl)->Supply(buffer, length);
    }

    /// Hands the next piece to the parser, which is as far as it gets with what it has.
    int Supply(char* buffer, int length) {
        const int wanted = isDeclarationChecked ? length : std::min(length, kFirstPiece);
        const int line = reader != nullptr ? xmlTextReaderGetParserLineNumber(reader) : 0;
        const int column = reader != nullptr ? xmlTextReaderGetParserColumnNumber(reader) : 0;
        if (line != lastLine || column != lastColumn) {
            attributes = 0;
            lastLine = line;
            lastColumn = column;
        }
        if (attributes > kMaxAttributes) {
            refusal = kTooManyAttributes;
        } else if (!isDeclarationChecked && supplied > kMaxBeginning) {
            refusal = "too much before the first element";
        }
        const int count = refusal == nullptr ? Copy(buffer, wanted) : -1;
        if (count > 0) {
            const std::string_view piece(buffer, static_cast<std::size_t>(count));
            supplied += piece.size();
            if (!encoding.Add(piece)) {
                return -1;
            }
            CountAttributes(piece);
        }
        return count;
    }

    /// What looks like one, an equal sign and a quotation mark, in all encodings that pass.
    void CountAttributes(std::string_view piece) {
        std::size_t at = isBehindEqualSign ? 0 : FindBehindEqualSign(piece, 0);
        while (at != std::string_view::npos) {
            at = piece.find_first_not_of(kSpaces, at);
            if (at == std::string_view::npos) {
                isBehindEqualSign = true;
                return;
            }
            if (piece[at] == '"' || piece[at] == '\'') {
                ++attributes;
            }
            at = FindBehindEqualSign(piece, at);
        }
        isBehindEqualSign = false;
    }

    static std::size_t FindBehindEqualSign(std::string_view piece, std::size_t at) {
        const std::size_t found = piece.find('=', at);
        return found == std::string_view::npos ? found : found + 1;
    }

    int Copy(char* buffer, int length) {
        if (stream == nullptr) {
            const std::size_t count = text.copy(buffer, static_cast<std::size_t>(length), supplied);
            return static_cast<int>(count);
        }
        try {
            stream->read(buffer, length);
            return stream->bad() ? -1 : static_cast<int>(stream->gcount());
        } catch (const std::exception&) {
            return -1;  // one that throws by its mask; a C library stands between
        }
    }

    static void OnError(void* impl, xmlError* error) {
        xmlError& kept = static_cast<Impl*>(impl)->error;
        if (kept.message == nullptr && error->level >= XML_ERR_ERROR) {
            xmlCopyError(error, &kept);
        }
    }

    bool Check(int result) {
        if (encoding.IsRefused()) {
            encoding.Throw();
        }
        if (refusal == nullptr && !isDeclarationChecked) {
            CheckDeclarations();
        }
        if (refusal != nullptr) {
            throw XmlException(refusal, static_cast<unsigned int>(xmlTextReaderGetParserLineNumber(reader)),
                               static_cast<unsigned int>(xmlTextReaderGetParserColumnNumber(reader)));
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
            refusal = kNoEntities;
        } else if (subset != nullptr && subset->attributes != nullptr) {
            refusal = kNoAttributes;
        }
        isDeclarationChecked = xmlTextReaderNodeType(reader) == XML_READER_TYPE_ELEMENT;
    }

    std::string text;
    std::istream* stream = nullptr;  ///< in place of the text
    std::size_t supplied = 0;        ///< to the parser, in bytes
    XmlEncoding encoding;
    int attributes = 0;  ///< or what looks like it, since the parser last got on
    bool isBehindEqualSign = false;
    int lastLine = 0;
    int lastColumn = 0;
    const char* refusal = nullptr;
    std::string lines;  ///< of the value that was asked for
    xmlTextReader* reader = nullptr;
    xmlDoc* document = nullptr;
    xmlError error{};
    bool isDeclarationChecked = false;
};

XmlReader::XmlReader(std::string_view text) : _impl(std::make_unique<Impl>()) {
    if (text.size() > INT_MAX) {
        throw XmlException("the document is too large");
    }
    _impl->text = text;
    _impl->Open();
}

XmlReader::XmlReader(std::istream& stream) : _impl(std::make_unique<Impl>()) {
    _impl->stream = &stream;
    _impl->Open();
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
    const std::string_view value = ToView(xmlTextReaderConstValue(_impl->reader));
    // libxml2 leaves the ends of lines as they are written in a CDATA section that it reads piece by piece.
    if (GetNodeType() != kCData || value.find('\r') == std::string_view::npos) {
        return value;
    }
    std::string& lines = _impl->lines;
    lines.clear();
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] != '\r') {
            lines += value[i];
        } else if (i + 1 == value.size() || value[i + 1] != '\n') {
            lines += '\n';
        }
    }
    return lines;
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
