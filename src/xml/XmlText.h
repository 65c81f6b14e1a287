// SPDX-License-Identifier: MIT

#pragma once

// What the XML classes share in dealing with libxml2.

#include <libxml/tree.h>
#include <libxml/xmlerror.h>
#include <libxml/xmlversion.h>

#include <new>
#include <string>
#include <string_view>

namespace zarip::xml {

/// How libxml2 hands an error to a handler.
#if LIBXML_VERSION >= 21200
using ReportedError = const xmlError*;
#else
using ReportedError = xmlError*;
#endif

inline const xmlChar* ToXml(const char* text) {
    return reinterpret_cast<const xmlChar*>(text);
}

inline const xmlChar* ToXml(const std::string& text) {
    return ToXml(text.c_str());
}

inline std::string_view ToView(const xmlChar* text) {
    return text != nullptr ? std::string_view(reinterpret_cast<const char*>(text)) : std::string_view();
}

/// What libxml2 made; throws `std::bad_alloc` for null, where it had no memory.
template <class Node>
Node* Made(Node* node) {
    if (node == nullptr) {
        throw std::bad_alloc();
    }
    return node;
}

/// The attribute that is written at an element, or null. libxml2's own search also finds declarations of
/// attributes, which are no attributes.
xmlAttr* FindAttribute(const xmlNode* node, std::string_view name, std::string_view namespaceUri);
std::string ValueOf(const xmlAttr* attribute);

/// Copies a text of libxml2 and frees it.
std::string TakeString(xmlChar* text);

/// Makes libxml2 ready, once; before anything else of it is called.
void InitializeXml();

/// Whether it is a name as the parser takes it, of the letters that XML 1.0 has had since its fifth edition,
/// and in UTF-8. @param withPrefix  a prefix and a colon may stand before it.
bool IsName(std::string_view name, bool withPrefix);

/// Whether it is UTF-8, and of characters that XML can hold.
bool IsText(std::string_view text);

/// Throw `XmlException` for what a document cannot hold.
void CheckName(std::string_view name, bool withPrefix);
void CheckText(std::string_view text);
void CheckNamespace(const std::string& prefix, const std::string& namespaceUri);

/// Throws the last error of a parser.
[[noreturn]] void ThrowError(const xmlError* error);

/// Takes the errors that libxml2 reports on this thread while it exists, for calls that know no other way to
/// tell; otherwise they would go to standard error.
class ErrorScope {
public:
    ErrorScope();
    ErrorScope(const ErrorScope&) = delete;
    ErrorScope& operator=(const ErrorScope&) = delete;
    ~ErrorScope();

    /// The first one, or nothing.
    const std::string& GetText() const { return _text; }

private:
    static void Keep(void* scope, ReportedError error);
    __attribute__((format(printf, 2, 3))) static void KeepText(void* scope, const char* format, ...);
    void Keep(std::string text);

    xmlStructuredErrorFunc _function;
    void* _context;
    xmlGenericErrorFunc _textFunction;
    void* _textContext;
    std::string _text;
};

}  // namespace zarip::xml
