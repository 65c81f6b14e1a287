// SPDX-License-Identifier: MIT

#pragma once

#include <iosfwd>
#include <string>
#include <utility>

#include "elements.h"

namespace json {

namespace detail {

// Reads a document that begins with one of these characters, or any document if the list is empty. The
// function is in the library, so that programs need no parser.
[[gnu::visibility("default")]] UnknownElement ReadDocument(std::istream& stream, const char* firstCharacters);

}  // namespace detail

/// Reads elements from UTF-8. The stream is read to its end and must contain exactly one document, with at
/// most 200 levels and 1,000,000 elements; numbers must fit a double. If reading fails, the element is
/// unchanged.
class Reader {
public:
    /// A position in the document. All three numbers count from 0, columns and offsets in bytes.
    struct Location {
        unsigned int m_nLine = 0;
        unsigned int m_nLineOffset = 0;
        unsigned int m_nDocOffset = 0;
    };

    /// The input cannot be divided into tokens: a malformed string, number or word, or bytes that are not
    /// UTF-8.
    class ScanException : public Exception {
    public:
        ScanException(const std::string& message, const Location& error)
            : Exception(message), m_locError(error) {}

        Location m_locError;
    };

    /// The tokens are not a document, or the document is of another kind than requested, names a member
    /// twice, is nested too deep or has too many elements. The locations are those of the token in question,
    /// or both are at the end of the input if a token is missing.
    class ParseException : public Exception {
    public:
        ParseException(const std::string& message, const Location& tokenBegin, const Location& tokenEnd)
            : Exception(message), m_locTokenBegin(tokenBegin), m_locTokenEnd(tokenEnd) {}

        Location m_locTokenBegin;
        Location m_locTokenEnd;
    };

    static void Read(Array& array, std::istream& stream) { ReadAs(array, stream, "["); }
    static void Read(Object& object, std::istream& stream) { ReadAs(object, stream, "{"); }
    static void Read(Number& number, std::istream& stream) { ReadAs(number, stream, "-0123456789"); }
    static void Read(String& string, std::istream& stream) { ReadAs(string, stream, "\""); }
    static void Read(Boolean& boolean, std::istream& stream) { ReadAs(boolean, stream, "tf"); }
    static void Read(Null& null, std::istream& stream) { ReadAs(null, stream, "n"); }
    static void Read(UnknownElement& element, std::istream& stream) {
        element = detail::ReadDocument(stream, nullptr);
    }

private:
    template <class T>
    static void ReadAs(T& element, std::istream& stream, const char* firstCharacters) {
        UnknownElement root = detail::ReadDocument(stream, firstCharacters);
        element = std::move(static_cast<T&>(root));
    }
};

}  // namespace json
