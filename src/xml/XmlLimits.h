// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>

namespace zarip::xml {

// The limits of documents. The reader, the document and the writer share them, so that each accepts what the
// others accept. libxml2 compares all attributes, namespaces and names with each other. The first three
// limits keep the time for that proportional to the length of the document.

constexpr std::size_t kMaxAttributes = 2'048;  ///< of one element, including declarations of namespaces
constexpr int kMaxNamespaces = 256;            ///< declared for one element, by itself or around it
constexpr int kMaxNames = 65'536;              ///< different names in a document

constexpr int kMaxDepth = 256;                 ///< nested elements
constexpr std::size_t kMaxName = 50'000;       ///< bytes of a name
constexpr std::size_t kMaxText = 10'000'000;   ///< bytes of text between two pieces of markup
constexpr std::size_t kMaxMarkup = 9'900'000;  ///< bytes of a tag, a comment or a processing instruction

constexpr char kNoEntities[] = "entity declarations are not allowed";
constexpr char kNoAttributes[] = "attribute declarations are not allowed";
constexpr char kTooManyAttributes[] = "too many attributes";
constexpr char kTooManyNamespaces[] = "too many namespaces";
constexpr char kTooManyNames[] = "too many different names";
constexpr char kTooLongText[] = "text of more than 10000000 bytes";
constexpr char kTooLongMarkup[] = "a tag or comment of more than 9900000 bytes";
constexpr char kInvalidId[] = "xml:id is not a name";
constexpr char kDoubledId[] = "xml:id is not the only one of its value";
constexpr char kInvalidText[] = "invalid text";
constexpr char kZeroByte[] = "zero bytes are not allowed";
/// The message of libxml2.
constexpr char kTooDeep[] = "Excessive depth in document: 256 use XML_PARSE_HUGE option";

}  // namespace zarip::xml
