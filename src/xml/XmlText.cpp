#include "xml/XmlText.h"

#include <libxml/parser.h>
#include <libxml/xmlmemory.h>

#include <algorithm>
#include <memory>
#include <mutex>

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

/// Whether it is UTF-8 that XML can hold: no longer forms than needed, no surrogates (U+D800 to U+DFFF),
/// neither U+FFFE nor U+FFFF, nothing beyond U+10FFFF.
bool IsUtf8(const std::string& text) {
    for (std::size_t i = 0; i < text.size();) {
        const auto first = static_cast<unsigned char>(text[i++]);
        if (first < 0x80) {
            continue;
        }
        if (first < 0xC2 || first > 0xF4) {
            return false;
        }
        const int more = first < 0xE0 ? 1 : first < 0xF0 ? 2 : 3;
        unsigned int code = first & (0x3FU >> static_cast<unsigned int>(more));
        for (int k = 0; k < more; ++k) {
            const unsigned int next = i < text.size() ? static_cast<unsigned char>(text[i++]) : 0;
            if ((next & 0xC0U) != 0x80) {
                return false;
            }
            code = code << 6U | (next & 0x3FU);
        }
        if ((more == 2 && code < 0x800) || (more == 3 && code < 0x10000) || code > 0x10FFFF ||
            (code >= 0xD800 && code <= 0xDFFF) || code == 0xFFFE || code == 0xFFFF) {
            return false;
        }
    }
    return true;
}

}  // namespace

void CheckName(const std::string& name, bool withPrefix) {
    // A zero byte would end the name for libxml2, and hide what comes behind.
    const bool isValid =
        name.find('\0') == std::string::npos && IsUtf8(name) &&
        (withPrefix ? xmlValidateQName(ToXml(name), 0) : xmlValidateNCName(ToXml(name), 0)) == 0;
    if (!isValid) {
        throw XmlException("invalid name '" + name + "'");
    }
}

void CheckText(const std::string& text) {
    const auto isAllowed = [](char character) {
        const auto byte = static_cast<unsigned char>(character);
        return byte >= 0x20 || byte == '\t' || byte == '\n' || byte == '\r';
    };
    if (!std::all_of(text.begin(), text.end(), isAllowed) || !IsUtf8(text)) {
        throw XmlException("invalid text");
    }
}

void CheckNamespace(const std::string& prefix, const std::string& namespaceUri) {
    if (!prefix.empty()) {
        CheckName(prefix, false);
    }
    CheckText(namespaceUri);
    // Both of XML's own are declared everywhere; and a prefix always stands for a namespace.
    if (prefix == "xml" || prefix == "xmlns" || namespaceUri == "http://www.w3.org/XML/1998/namespace" ||
        namespaceUri == "http://www.w3.org/2000/xmlns/" || (!prefix.empty() && namespaceUri.empty())) {
        throw XmlException("invalid namespace '" + prefix + "' '" + namespaceUri + "'");
    }
}

ErrorScope::ErrorScope() : _function(xmlStructuredError), _context(xmlStructuredErrorContext) {
    xmlSetStructuredErrorFunc(this, Keep);
}

ErrorScope::~ErrorScope() {
    xmlSetStructuredErrorFunc(_context, _function);
}

void ErrorScope::Keep(void* scope, xmlError* error) {
    std::string& text = static_cast<ErrorScope*>(scope)->_text;
    if (text.empty() && error->message != nullptr) {
        text = error->message;
        text.erase(text.find_last_not_of(" \n") + 1);
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
