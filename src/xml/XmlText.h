// SPDX-License-Identifier: MIT

#pragma once

// Functions for the use of libxml2 that the XML classes share.

#include <libxml/tree.h>
#include <libxml/xmlerror.h>
#include <libxml/xmlversion.h>

#include <new>
#include <string>
#include <string_view>

namespace zarip::xml {

/// The type with which libxml2 passes an error to a handler.
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

/// Returns a result of libxml2. Throws `std::bad_alloc` if it is null, because libxml2 had no memory.
template <class Node>
Node* RequireMade(Node* node) {
    if (node == nullptr) {
        throw std::bad_alloc();
    }
    return node;
}

/// Finds an attribute of an element, or returns null. libxml2's own search also finds
/// declarations of attributes, which are not attributes.
xmlAttr* FindAttribute(const xmlNode* node, std::string_view name, std::string_view namespaceUri);
std::string ValueOf(const xmlAttr* attribute);

/// Copies a string of libxml2 and frees it.
std::string TakeString(xmlChar* text);

/// Initialises libxml2 once. It must be called before any other function of libxml2.
void InitializeXml();

/// Returns whether the parser accepts it as a name: UTF-8 with the characters that XML 1.0 allows since its
/// fifth edition.
/// @param withPrefix  whether a prefix and a colon may precede it.
bool IsName(std::string_view name, bool withPrefix);

/// Returns whether it is UTF-8 and has only characters that XML can contain.
bool IsText(std::string_view text);

/// These functions throw `XmlException` if a document cannot contain the argument.
void CheckName(std::string_view name, bool withPrefix);
void CheckText(std::string_view text);
void CheckNamespace(const std::string& prefix, const std::string& namespaceUri);

/// Throws the last error of a parser.
[[noreturn]] void ThrowError(const xmlError* error);

/// Collects the errors that libxml2 reports on this thread while the object exists. It is used for calls that
/// do not report errors in another way; libxml2 would write them to standard error.
class ErrorScope {
public:
    ErrorScope();
    ErrorScope(const ErrorScope&) = delete;
    ErrorScope& operator=(const ErrorScope&) = delete;
    ~ErrorScope();

    /// Returns the first error, or an empty string.
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
