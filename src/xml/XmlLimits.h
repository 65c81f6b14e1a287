// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>

namespace zarip::xml {

// What documents may have. The reader, the document and the writer share these numbers, so that each of them
// takes what the others take. libxml2 compares each of some things with all others of their kind; the first
// three limits keep the time for that in proportion to the length of the document.

constexpr std::size_t kMaxAttributes = 2'048;  ///< of one element, declarations of namespaces included
constexpr int kMaxNamespaces = 256;            ///< that are declared for one element, here or around
constexpr int kMaxNames = 65'536;              ///< different names in a document

constexpr int kMaxDepth = 256;                 ///< of elements
constexpr std::size_t kMaxName = 50'000;       ///< bytes
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
/// As libxml2 has it.
constexpr char kTooDeep[] = "Excessive depth in document: 256 use XML_PARSE_HUGE option";

}  // namespace zarip::xml
