// SPDX-License-Identifier: MIT

#include "zarip/xml/XmlReader.h"

#include <libxml/parser.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <exception>

#include "xml/XmlNodeQueue.h"
#include "xml/XmlScanner.h"
#include "xml/XmlText.h"
#include "zarip/osa/IOException.h"
#include "zarip/xml/XmlException.h"

namespace zarip::xml {

namespace {

bool IsStopped(xmlParserCtxt* parser) {
#if LIBXML_VERSION >= 21500
    return xmlCtxtIsStopped(parser) != 0;
#else
    return parser->disableSAX != 0;
#endif
}

/// The size of the pieces that are passed to the parser. Each call takes time, and the queue holds all nodes
/// of a piece.
constexpr std::size_t kPiece = 4'096;
constexpr std::size_t kFirstPiece = 4;  ///< the encoding is detected by these bytes

/// Entities in attributes are replaced. Only the predefined ones exist, because others cannot be declared.
constexpr int kOptions = XML_PARSE_NONET | XML_PARSE_BIG_LINES | XML_PARSE_NOENT;

struct ParserDelete {
    void operator()(xmlParserCtxt* parser) const {
        xmlFreeDoc(parser->myDoc);  // the parser makes a document for declarations
        xmlFreeParserCtxt(parser);
    }
};

}  // namespace

/// Bytes of the document are appended to `_held` as they arrive and scanned. All bytes up to the end of a
/// piece of markup go from there to the parser, whose handlers fill the queue.
struct ZARIP_HIDDEN XmlReader::Impl {
    /// Moves to the next node. All nodes before an error are delivered before the error is thrown.
    bool ReadNode() {
        while (!_queue.Advance(_isComplete)) {
            if (_isComplete) {
                return false;
            }
            if (_queue.IsBad() || _scanner.IsRefused() || _hasFailed || _isBroken || _isAtEnd) {
                Throw();
            }
            ParseHeld(SupplyBytes());
        }
        return true;
    }

    [[noreturn]] void Throw() {
        if (_hasFailed && !_queue.IsBad()) {
            throw osa::IOException("XmlReader: reading failed");
        }
        if (_scanner.IsEncodingRefused()) {
            _scanner.ThrowEncoding();
        }
        const bool isRefused = _scanner.GetRefusal() != nullptr;
        if (_queue.IsBad() || (!isRefused && _breakage.empty())) {
            _queue.Throw();
        }
        const xmlParserInput* const input = _parser ? _parser->input : nullptr;
        throw XmlException(isRefused ? _scanner.GetRefusal() : _breakage,
                           static_cast<unsigned int>(input != nullptr ? std::max(input->line, 1) : 1),
                           static_cast<unsigned int>(input != nullptr ? std::max(input->col, 1) : 1));
    }

    /// Appends the next bytes to `_held`. Returns how many bytes of it the parser can take.
    std::size_t SupplyBytes() {
        const std::size_t before = _held.size();
        while (_held.size() == before || (!_parser && _held.size() < kFirstPiece)) {
            if (!AppendPiece()) {
                _isAtEnd = !_hasFailed;
                break;
            }
        }
        const std::size_t whole = _scanner.Scan(std::string_view(_held).substr(_scanned));
        const std::size_t ready = whole == 0 ? 0 : _scanned + whole;
        _scanned = _held.size();
        return _isAtEnd && !_scanner.IsRefused() ? _held.size() : ready;
    }

    /// Appends a piece. Returns false at the end of the document and if reading fails.
    bool AppendPiece() {
        if (_stream == nullptr) {
            const std::string_view piece = std::string_view(_text).substr(_taken, kPiece);
            _held += piece;
            _taken += piece.size();
            return !piece.empty();
        }
        try {
            return AppendArrived();
        } catch (const std::exception&) {
            _hasFailed = true;  // the stream's buffer, or the stream because of its exception mask
            return false;
        }
    }

    /// Appends the bytes that have arrived. Waits only if no byte is there.
    bool AppendArrived() {
        using Traits = std::istream::traits_type;
        std::streambuf* const source = _stream->rdbuf();
        if (_stream->fail() || source == nullptr) {
            _hasFailed = true;
            return false;
        }
        if (_stream->eof() || Traits::eq_int_type(source->sgetc(), Traits::eof())) {
            _stream->setstate(std::ios_base::eofbit);
            return false;
        }
        const std::streamsize arrived =
            std::clamp<std::streamsize>(source->in_avail(), 1, static_cast<std::streamsize>(kPiece));
        const std::size_t before = _held.size();
        _held.resize(before + static_cast<std::size_t>(arrived));
        _held.resize(before + static_cast<std::size_t>(source->sgetn(&_held[before], arrived)));
        return true;
    }

    void ParseHeld(std::size_t ready) {
        const ErrorScope errors;  // libxml2 reports some errors to no handler of the parser
        std::size_t parsed = 0;
        if (!_parser) {
            if (ready < kFirstPiece && !_isAtEnd) {
                return;
            }
            parsed = std::min(ready, kFirstPiece);
            _parser.reset(RequireMade(
                xmlCreatePushParserCtxt(nullptr, nullptr, _held.data(), static_cast<int>(parsed), nullptr)));
            xmlCtxtUseOptions(_parser.get(), kOptions);
            _queue.Attach(*_parser);
        }
        if (ready > parsed) {
            xmlParseChunk(_parser.get(), &_held[parsed], static_cast<int>(ready - parsed), 0);
        }
        _held.erase(0, ready);
        _scanned -= ready;
        if (_held.capacity() > 16 * kPiece && _held.size() < kPiece) {
            _held.shrink_to_fit();  // after an unusually long piece of markup
        }
        if (_isAtEnd && !_scanner.IsRefused() && !_queue.IsBad()) {
            xmlParseChunk(_parser.get(), nullptr, 0, 1);
            _isComplete = _queue.IsEnded() && _parser->wellFormed != 0 && !_queue.IsBad();
        }
        // Bytes that are invalid in the encoding stop the parser without a call of its handlers.
        _isBroken = IsStopped(_parser.get()) || !errors.GetText().empty();
        _breakage = errors.GetText();
    }

    /// Returns the first attribute of the current element for which `fits` is true, or null.
    template <class Fits>
    const XmlNodeQueue::Attribute* FindAttribute(Fits fits) const {
        const XmlNodeQueue::Node& node = _queue.Current();
        for (std::size_t i = 0; i < node.attributes; ++i) {
            const XmlNodeQueue::Attribute& attribute = _queue.AttributeAt(node.firstAttribute + i);
            if (fits(attribute.name)) {
                return &attribute;
            }
        }
        return nullptr;
    }

    bool TakeValue(const XmlNodeQueue::Attribute* attribute, std::string& value) const {
        if (attribute != nullptr) {
            value = _queue.TextOf(attribute->value);
        }
        return attribute != nullptr;
    }

    std::string _text;
    std::size_t _taken = 0;           ///< the number of bytes taken from the text
    std::istream* _stream = nullptr;  ///< the source instead of the text, or null
    bool _hasFailed = false;          ///< whether reading the stream has failed
    bool _isAtEnd = false;
    bool _isComplete = false;  ///< whether the parser has accepted the whole document
    bool _isBroken = false;    ///< whether the parser has stopped
    std::string _breakage;     ///< the reason if no handler has reported one
    XmlScanner _scanner;
    std::string _held;         ///< the bytes that have not been passed to the parser
    std::size_t _scanned = 0;  ///< the number of scanned bytes in `_held`
    XmlNodeQueue _queue;
    std::unique_ptr<xmlParserCtxt, ParserDelete> _parser;
    std::string _name;   ///< the value of `GetName`
    std::string _lines;  ///< the value of `GetValue`
};

XmlReader::XmlReader(std::string_view text) : _impl(std::make_unique<Impl>()) {
    InitializeXml();
    if (text.size() > INT_MAX) {
        throw XmlException("the document is too large");
    }
    _impl->_text = text;
}

XmlReader::XmlReader(std::istream& stream) : _impl(std::make_unique<Impl>()) {
    InitializeXml();
    _impl->_stream = &stream;
}

XmlReader::~XmlReader() = default;

bool XmlReader::Read() {
    return _impl->ReadNode();
}

bool XmlReader::Skip() {
    if (GetNodeType() == kElement && !IsEmptyElement()) {
        const int depth = GetDepth();
        while (Read() && (GetNodeType() != kEndElement || GetDepth() != depth)) {
        }
    }
    return Read();
}

XmlReader::NodeType XmlReader::GetNodeType() const {
    return _impl->_queue.Current().type;
}

std::string_view XmlReader::GetName() const {
    const XmlNodeQueue::Name& name = _impl->_queue.Current().name;
    if (name.prefix == nullptr) {
        return GetLocalName();
    }
    _impl->_name = ToView(name.prefix);
    _impl->_name += ':';
    _impl->_name += ToView(name.local);
    return _impl->_name;
}

std::string_view XmlReader::GetLocalName() const {
    switch (GetNodeType()) {
        case kText:
        case kWhitespace:
            return "#text";
        case kCData:
            return "#cdata-section";
        case kComment:
            return "#comment";
        default:
            return ToView(_impl->_queue.Current().name.local);
    }
}

std::string_view XmlReader::GetNamespaceUri() const {
    return ToView(_impl->_queue.Current().name.uri);
}

std::string_view XmlReader::GetValue() const {
    const std::string_view value = _impl->_queue.TextOf(_impl->_queue.Current().value);
    // libxml2 does not normalise line ends in CDATA sections that it reads in pieces.
    if (GetNodeType() != kCData || value.find('\r') == std::string_view::npos) {
        return value;
    }
    std::string& lines = _impl->_lines;
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
    return _impl->_queue.Current().depth;
}

bool XmlReader::IsEmptyElement() const {
    return _impl->_queue.Current().isEmpty;
}

bool XmlReader::GetAttribute(const char* name, std::string& value) const {
    const std::string_view wanted = name;
    const auto fits = [wanted](const XmlNodeQueue::Name& found) {
        const std::string_view local = ToView(found.local);
        const std::string_view prefix = ToView(found.prefix);
        return prefix.empty() ? local == wanted
                              : wanted.size() == prefix.size() + 1 + local.size() &&
                                    wanted.substr(0, prefix.size()) == prefix &&
                                    wanted[prefix.size()] == ':' && wanted.substr(prefix.size() + 1) == local;
    };
    return _impl->TakeValue(_impl->FindAttribute(fits), value);
}

bool XmlReader::GetAttribute(const char* localName, const char* namespaceUri, std::string& value) const {
    const std::string_view uri = namespaceUri != nullptr ? namespaceUri : "";
    const auto fits = [localName, uri](const XmlNodeQueue::Name& found) {
        return ToView(found.local) == localName && ToView(found.uri) == uri;
    };
    return _impl->TakeValue(_impl->FindAttribute(fits), value);
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
    return _impl->_queue.Current().line;
}

}  // namespace zarip::xml
