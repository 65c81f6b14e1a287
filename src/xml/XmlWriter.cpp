// SPDX-License-Identifier: MIT

#include "zarip/xml/XmlWriter.h"

#include <libxml/xmlwriter.h>

#include <algorithm>
#include <set>
#include <utility>
#include <vector>

#include "xml/XmlLimits.h"
#include "xml/XmlText.h"
#include "zarip/osa/IOException.h"
#include "zarip/xml/XmlException.h"

namespace zarip::xml {

namespace {

int WriteStream(void* stream, const char* buffer, int length) {
    auto& output = *static_cast<std::ostream*>(stream);
    try {
        output.write(buffer, length);
    } catch (const std::exception&) {
        return -1;  // the stream throws because of its mask, which must not pass through the C library
    }
    return output ? length : -1;
}

int LeaveStream(void* /*stream*/) {
    return 0;
}

constexpr std::string_view kDeclaration = "xmlns";

/// The reader also counts XML's own names, so slightly fewer can be written.
constexpr std::size_t kMaxWrittenNames = static_cast<std::size_t>(kMaxNames) - 100;

std::pair<std::string_view, std::string_view> SplitName(std::string_view name) {
    const std::size_t colon = name.find(':');
    return colon == std::string_view::npos ? std::make_pair(std::string_view(), name)
                                           : std::make_pair(name.substr(0, colon), name.substr(colon + 1));
}

/// Returns the maximum size of the escaped value in an attribute, in bytes.
std::size_t ComputeEscapedSize(std::string_view value) {
    std::size_t size = value.size();
    for (const char c : value) {
        size += c == '"' || c == '&' || c == '<' || c == '>' || static_cast<unsigned char>(c) < 0x20 ? 5 : 0;
    }
    return size;
}

}  // namespace

/// An open start tag is kept until its content or end is written, because only then all its prefixes are
/// declared. libxml2 does the writing, but not the indentation, because its own would change mixed text.
struct ZARIP_HIDDEN XmlWriter::Impl {
    struct Attribute {
        std::string name;
        std::string value;
    };

    struct Level {
        std::vector<std::pair<std::string, std::string>> namespaces;  ///< prefixes and names declared here
        bool hasText;  ///< whether it or an element around it has text
        bool isEmpty;
    };

    explicit Impl(std::ostream& output, bool isIndented) : _stream(output), _indent(isIndented) {}
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    ~Impl() {
        const ErrorScope errors;  // freeing flushes and may report errors
        xmlFreeTextWriter(_writer);
    }

    /// Calls a function of the writer and throws if it fails.
    template <class Function, class... Arguments>
    void CallWriter(Function function, const Arguments&... argument) {
        const ErrorScope errors;
        if (function(_writer, argument...) < 0) {
            ThrowFailed();
        }
    }

    [[noreturn]] static void ThrowFailed() { throw osa::IOException("XmlWriter: writing failed"); }

    void CheckOpen() const {
        if (_levels.empty()) {
            throw XmlException(_isComplete ? "the document is complete" : "no element is open");
        }
    }

    void CheckAttribute(const std::string& name) const {
        CheckOpen();
        if (!_isTagOpen) {
            throw XmlException("attributes must precede the content of an element");
        }
        for (const Attribute& other : _attributes) {
            if (other.name == name) {
                throw XmlException("attribute '" + name + "' twice");
            }
        }
        if (_attributes.size() == kMaxAttributes) {
            throw XmlException(kTooManyAttributes);
        }
    }

    /// Returns the namespace of a prefix, or null.
    const std::string* FindNamespace(std::string_view prefix) const {
        for (auto level = _levels.rbegin(); level != _levels.rend(); ++level) {
            for (const auto& declared : level->namespaces) {
                if (declared.first == prefix) {
                    return &declared.second;
                }
            }
        }
        return nullptr;
    }

    const std::string& RequireNamespace(std::string_view prefix) const {
        static const std::string s_xml(reinterpret_cast<const char*>(XML_XML_NAMESPACE));
        const std::string* const found = prefix == "xml" ? &s_xml : FindNamespace(prefix);
        if (found == nullptr) {
            throw XmlException("undeclared prefix '" + std::string(prefix) + "'");
        }
        return *found;
    }

    /// Throws if the open start tag could not be read again; changes nothing.
    void CheckTag() const {
        std::size_t size = 2 * _tag.size() + 16;
        std::vector<std::pair<std::string_view, std::string_view>> found;  // namespace and local name
        if (const auto [prefix, local] = SplitName(_tag); !prefix.empty()) {
            RequireNamespace(prefix);
        }
        for (const Attribute& attribute : _attributes) {
            size += attribute.name.size() + ComputeEscapedSize(attribute.value) + 4;
            const auto [prefix, local] = SplitName(attribute.name);
            if (!prefix.empty() && prefix != kDeclaration) {
                found.emplace_back(RequireNamespace(prefix), local);
            }
        }
        std::sort(found.begin(), found.end());
        const auto twice = std::adjacent_find(found.begin(), found.end());
        if (twice != found.end()) {
            throw XmlException("attribute '" + std::string(twice->second) + "' twice");
        }
        std::size_t declared = 0;
        for (const Level& level : _levels) {
            declared += level.namespaces.size();
        }
        if (declared > static_cast<std::size_t>(kMaxNamespaces)) {
            throw XmlException(kTooManyNamespaces);
        }
        if (size > kMaxMarkup) {
            throw XmlException(kTooLongMarkup);
        }
    }

    /// Writes the open start tag if there is one.
    void CloseTag() {
        if (!_isTagOpen) {
            return;
        }
        CheckTag();
        CallWriter(xmlTextWriterStartElement, ToXml(_tag));
        for (const Attribute& attribute : _attributes) {
            CallWriter(xmlTextWriterWriteAttribute, ToXml(attribute.name), ToXml(attribute.value));
        }
        _isTagOpen = false;
    }

    /// Begins a line before an element, a comment or the end of an element, unless that would change a text.
    void BeginLine(std::size_t depth) {
        _textSize = 0;
        if (_indent && !(_levels.empty() ? _isAtStart : _levels.back().hasText)) {
            CallWriter(xmlTextWriterWriteRaw, ToXml("\n" + std::string(2 * depth, ' ')));
        }
        _isAtStart = false;
    }

    /// Prepares for text or a CDATA section in the open element.
    void BeginText(std::size_t size) {
        CheckOpen();
        if (size > kMaxText - _textSize) {
            throw XmlException(kTooLongText);
        }
        CloseTag();
        _textSize += size;
        _levels.back().hasText = true;
        _levels.back().isEmpty = false;
    }

    void CheckNewNames(std::initializer_list<std::string_view> used) {
        for (const std::string_view name : used) {
            if (_names.find(name) == _names.end()) {
                if (_names.size() >= kMaxWrittenNames) {
                    throw XmlException(kTooManyNames);
                }
                _names.emplace(name);
            }
        }
    }

    std::ostream& _stream;
    const bool _indent;
    xmlTextWriter* _writer = nullptr;
    std::vector<Level> _levels;  ///< the open elements
    bool _isBegun = false;
    bool _isComplete = false;
    bool _isAtStart = true;  ///< whether the next piece begins a line outside of the root element
    bool _isTagOpen = false;
    std::string _tag;  ///< the name of the element that was started last
    std::vector<Attribute> _attributes;
    std::size_t _textSize = 0;  ///< the size of the text since the last tag or comment
    std::set<std::string, std::less<>> _names;
    std::set<std::string> _ids;
};

XmlWriter::XmlWriter(std::ostream& stream, bool indent) : _impl(std::make_unique<Impl>(stream, indent)) {
    InitializeXml();
    xmlOutputBuffer* const buffer =
        RequireMade(xmlOutputBufferCreateIO(WriteStream, LeaveStream, &stream, nullptr));
    _impl->_writer = xmlNewTextWriter(buffer);
    if (_impl->_writer == nullptr) {
        xmlOutputBufferClose(buffer);
        throw std::bad_alloc();
    }
}

XmlWriter::~XmlWriter() = default;

void XmlWriter::StartDocument() {
    if (_impl->_isBegun) {
        throw XmlException("the document has begun");
    }
    _impl->_isBegun = true;
    _impl->CallWriter(xmlTextWriterStartDocument, nullptr, "UTF-8", nullptr);
}

void XmlWriter::StartElement(const std::string& name) {
    CheckName(name, true);
    if (_impl->_isComplete) {
        throw XmlException("the document is complete");
    }
    if (_impl->_levels.size() == static_cast<std::size_t>(kMaxDepth)) {
        throw XmlException("elements are nested too deep");
    }
    const auto [prefix, local] = SplitName(name);
    _impl->CheckNewNames({prefix, local});
    _impl->CloseTag();
    _impl->BeginLine(_impl->_levels.size());
    _impl->_isBegun = true;
    if (!_impl->_levels.empty()) {
        _impl->_levels.back().isEmpty = false;
    }
    _impl->_levels.push_back({{}, !_impl->_levels.empty() && _impl->_levels.back().hasText, true});
    _impl->_isTagOpen = true;
    _impl->_tag = name;
    _impl->_attributes.clear();
}

void XmlWriter::EndElement() {
    _impl->CheckOpen();
    _impl->CloseTag();
    if (!_impl->_levels.back().isEmpty) {
        _impl->BeginLine(_impl->_levels.size() - 1);
    }
    _impl->_textSize = 0;
    _impl->CallWriter(xmlTextWriterEndElement);
    _impl->_levels.pop_back();
    _impl->_isComplete = _impl->_levels.empty();
}

void XmlWriter::Element(const std::string& name, const std::string& text) {
    CheckText(text);
    StartElement(name);
    if (!text.empty()) {
        Text(text);
    }
    EndElement();
}

void XmlWriter::Attribute(const std::string& name, const std::string& value) {
    CheckName(name, true);
    CheckText(value);
    const auto [prefix, local] = SplitName(name);
    const bool isDeclaration = name == kDeclaration || prefix == kDeclaration;
    if (isDeclaration) {
        CheckNamespace(name == kDeclaration ? std::string() : std::string(local), value);
    }
    _impl->CheckAttribute(name);
    if (name == "xml:id") {
        if (!IsName(value, false) || _impl->_ids.count(value) != 0) {
            throw XmlException(IsName(value, false) ? kDoubledId : kInvalidId);
        }
        _impl->_ids.insert(value);
    }
    _impl->CheckNewNames({prefix, local, isDeclaration ? std::string_view(value) : prefix});
    if (isDeclaration) {
        _impl->_levels.back().namespaces.emplace_back(name == kDeclaration ? std::string_view() : local,
                                                      value);
    }
    _impl->_attributes.push_back({name, value});
}

void XmlWriter::Namespace(const std::string& prefix, const std::string& uri) {
    CheckNamespace(prefix, uri);
    Attribute(prefix.empty() ? "xmlns" : "xmlns:" + prefix, uri);
}

void XmlWriter::Text(const std::string& text) {
    CheckText(text);
    _impl->BeginText(text.size());
    _impl->CallWriter(xmlTextWriterWriteString, ToXml(text));
}

void XmlWriter::CData(const std::string& text) {
    CheckText(text);
    _impl->BeginText(text.size());
    // An end mark in the text is divided between two sections. A carriage return is escaped between two
    // sections, because inside a section it would be read as a line feed.
    std::size_t begin = 0;
    for (std::size_t at = text.find_first_of("]\r"); at != std::string::npos;
         at = text.find_first_of("]\r", at)) {
        if (text[at] == '\r') {
            _impl->CallWriter(xmlTextWriterWriteCDATA, ToXml(text.substr(begin, at - begin)));
            _impl->CallWriter(xmlTextWriterWriteString, ToXml("\r"));
            begin = ++at;
        } else if (text.compare(at, 3, "]]>") == 0) {
            at += 2;
            _impl->CallWriter(xmlTextWriterWriteCDATA, ToXml(text.substr(begin, at - begin)));
            begin = at;
        } else {
            ++at;
        }
    }
    _impl->CallWriter(xmlTextWriterWriteCDATA, ToXml(text.substr(begin)));
}

void XmlWriter::Comment(const std::string& text) {
    CheckText(text);
    if (text.find("--") != std::string::npos || (!text.empty() && text.back() == '-')) {
        throw XmlException("invalid comment");
    }
    if (text.size() > kMaxMarkup - 16) {
        throw XmlException(kTooLongMarkup);
    }
    _impl->CloseTag();
    _impl->BeginLine(_impl->_levels.size());
    _impl->_isBegun = true;
    if (!_impl->_levels.empty()) {
        _impl->_levels.back().isEmpty = false;
    }
    _impl->CallWriter(xmlTextWriterWriteComment, ToXml(text));
}

void XmlWriter::EndDocument() {
    if (_impl->_levels.empty() && !_impl->_isComplete) {
        throw XmlException("no element is open");
    }
    while (!_impl->_levels.empty()) {
        EndElement();
    }
    _impl->CallWriter(xmlTextWriterEndDocument);
    _impl->CallWriter(xmlTextWriterFlush);
    try {
        _impl->_stream.flush();
    } catch (const std::exception&) {
        Impl::ThrowFailed();  // it throws by its mask
    }
    if (!_impl->_stream) {
        Impl::ThrowFailed();
    }
}

}  // namespace zarip::xml
