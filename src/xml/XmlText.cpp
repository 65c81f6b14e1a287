#include "xml/XmlText.h"

#include <libxml/parser.h>
#include <libxml/xmlmemory.h>

#include <algorithm>
#include <mutex>

#include "zarip/xml/XmlException.h"

namespace zarip::xml {

std::string TakeString(xmlChar* text) {
    std::string copy(ToView(text));
    xmlFree(text);
    return copy;
}

void InitializeXml() {
    static std::once_flag s_once;
    std::call_once(s_once, xmlInitParser);
}

void CheckName(const std::string& name, bool withPrefix) {
    // A zero byte would end the name for libxml2, and hide what comes behind.
    const bool isValid =
        name.find('\0') == std::string::npos &&
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
    bool isValid = std::all_of(text.begin(), text.end(), isAllowed) && xmlCheckUTF8(ToXml(text)) != 0;
    // Of what is UTF-8 by its form XML has no surrogates, U+D800 to U+DFFF, and neither U+FFFE nor U+FFFF.
    for (std::size_t i = 0; isValid && i + 2 < text.size(); ++i) {
        const auto second = static_cast<unsigned char>(text[i + 1]);
        isValid = (text[i] != '\xED' || second < 0xA0) &&
                  (text[i] != '\xEF' || second != 0xBF || static_cast<unsigned char>(text[i + 2]) < 0xBE);
    }
    if (!isValid) {
        throw XmlException("invalid text");
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
