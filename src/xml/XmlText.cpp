// SPDX-License-Identifier: MIT

#include "xml/XmlText.h"

#include <libxml/parser.h>
#include <libxml/uri.h>
#include <libxml/xmlmemory.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <iterator>
#include <memory>
#include <mutex>
#include <utility>

#include "cutil/utf8.h"
#include "xml/XmlLimits.h"
#include "zarip/xml/XmlException.h"

namespace zarip::xml {

std::string TakeString(xmlChar* text) {
    const auto release = [](xmlChar* freed) { xmlFree(freed); };
    const std::unique_ptr<xmlChar, decltype(release)> owned(text, release);
    return std::string(ToView(text));
}

xmlAttr* FindAttribute(const xmlNode* node, std::string_view name, std::string_view namespaceUri) {
    xmlAttr* attribute = node->properties;
    while (attribute != nullptr &&
           (ToView(attribute->name) != name ||
            ToView(attribute->ns != nullptr ? attribute->ns->href : nullptr) != namespaceUri)) {
        attribute = attribute->next;
    }
    return attribute;
}

std::string ValueOf(const xmlAttr* attribute) {
    return TakeString(xmlNodeGetContent(reinterpret_cast<const xmlNode*>(attribute)));
}

void InitializeXml() {
    static std::once_flag s_once;
    std::call_once(s_once, xmlInitParser);
}

namespace {

/// Takes the next character. Returns `cutil::kNoCharacter` for bytes that are not UTF-8 and for characters
/// that XML cannot contain: U+FFFE, U+FFFF and control characters.
unsigned int TakeCharacter(std::string_view& text) {
    const unsigned int code = cutil::utf8_take(text);
    const bool isControl = code < 0x20 && code != '\t' && code != '\n' && code != '\r';
    return isControl || code == 0xFFFE || code == 0xFFFF ? cutil::kNoCharacter : code;
}

struct Range {
    unsigned int first;
    unsigned int last;
};

/// The characters with which a name may begin, except the colon.
constexpr Range kNameStart[] = {
    {'A', 'Z'},       {'_', '_'},       {'a', 'z'},       {0xC0, 0xD6},     {0xD8, 0xF6},
    {0xF8, 0x2FF},    {0x370, 0x37D},   {0x37F, 0x1FFF},  {0x200C, 0x200D}, {0x2070, 0x218F},
    {0x2C00, 0x2FEF}, {0x3001, 0xD7FF}, {0xF900, 0xFDCF}, {0xFDF0, 0xFFFD}, {0x10000, 0xEFFFF},
};
/// The other characters that a name may contain.
constexpr Range kNameMore[] = {
    {'-', '.'}, {'0', '9'}, {0xB7, 0xB7}, {0x300, 0x36F}, {0x203F, 0x2040},
};

template <std::size_t Size>
bool IsIn(const Range (&ranges)[Size], unsigned int character) {
    return std::any_of(std::begin(ranges), std::end(ranges), [character](const Range& range) {
        return character >= range.first && character <= range.last;
    });
}

bool IsPlainName(std::string_view name) {
    if (name.empty() || name.size() > kMaxName || !IsIn(kNameStart, TakeCharacter(name))) {
        return false;
    }
    while (!name.empty()) {
        const unsigned int character = TakeCharacter(name);
        if (!IsIn(kNameStart, character) && !IsIn(kNameMore, character)) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool IsName(std::string_view name, bool withPrefix) {
    const std::size_t colon = withPrefix ? name.find(':') : std::string_view::npos;
    return colon == std::string_view::npos
               ? IsPlainName(name)
               : IsPlainName(name.substr(0, colon)) && IsPlainName(name.substr(colon + 1));
}

void CheckName(std::string_view name, bool withPrefix) {
    if (!IsName(name, withPrefix)) {
        throw XmlException("invalid name '" + std::string(name) + "'");
    }
}

bool IsText(std::string_view text) {
    while (!text.empty()) {
        if (TakeCharacter(text) == cutil::kNoCharacter) {
            return false;
        }
    }
    return true;
}

void CheckText(std::string_view text) {
    if (text.size() > kMaxText) {
        throw XmlException(kTooLongText);
    }
    if (!IsText(text)) {
        throw XmlException(kInvalidText);
    }
}

void CheckNamespace(const std::string& prefix, const std::string& namespaceUri) {
    if (!prefix.empty()) {
        CheckName(prefix, false);
    }
    CheckText(namespaceUri);
    const std::unique_ptr<xmlURI, void (*)(xmlURI*)> uri(xmlParseURI(namespaceUri.c_str()), xmlFreeURI);
    // Both of XML's own are declared everywhere; and a prefix always has a namespace.
    if (prefix == "xml" || prefix == "xmlns" || namespaceUri == "http://www.w3.org/XML/1998/namespace" ||
        namespaceUri == "http://www.w3.org/2000/xmlns/" || (!prefix.empty() && namespaceUri.empty()) ||
        (!namespaceUri.empty() && !uri)) {
        throw XmlException("invalid namespace '" + prefix + "' '" + namespaceUri + "'");
    }
}

ErrorScope::ErrorScope()
    : _function(xmlStructuredError),
      _context(xmlStructuredErrorContext),
      _textFunction(xmlGenericError),
      _textContext(xmlGenericErrorContext) {
    xmlSetStructuredErrorFunc(this, Keep);
    xmlSetGenericErrorFunc(this, KeepText);
}

ErrorScope::~ErrorScope() {
    xmlSetStructuredErrorFunc(_context, _function);
    xmlSetGenericErrorFunc(_textContext, _textFunction);
}

void ErrorScope::Keep(void* scope, ReportedError error) {
    if (error->message != nullptr) {
        static_cast<ErrorScope*>(scope)->Keep(std::string(error->message));
    }
}

void ErrorScope::KeepText(void* scope, const char* format, ...) {
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    static_cast<ErrorScope*>(scope)->Keep(std::string(text));
}

void ErrorScope::Keep(std::string text) {
    if (_text.empty()) {
        _text = std::move(text);
        _text.erase(_text.find_last_not_of(" \n") + 1);
    }
}

void ThrowError(const xmlError* error) {
    if (error == nullptr || error->message == nullptr) {
        throw XmlException("no document");
    }
    std::string message = error->message;
    message.erase(message.find_last_not_of(" \n") + 1);
    const auto line = static_cast<unsigned int>(std::max(error->line, 0));
    const auto column = static_cast<unsigned int>(std::max(error->int2, 0));
    if (line == 0) {
        throw XmlException(message);
    }
    throw XmlException(message, line, column);
}

XmlException::XmlException(const std::string& message) : Exception(message) {}
XmlException::XmlException(const std::string& message, unsigned int line, unsigned int column)
    : Exception(message + " (line " + std::to_string(line) +
                (column != 0 ? ", column " + std::to_string(column) : std::string()) + ")"),
      _documentLine(line),
      _documentColumn(column) {}
XmlException::XmlException(const XmlException& other) = default;
XmlException& XmlException::operator=(const XmlException& other) = default;
XmlException::~XmlException() = default;

}  // namespace zarip::xml
