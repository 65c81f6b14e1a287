// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zarip::xml {

/// Looks at the beginning of a document for its encoding, before the parser does. UTF-8, UTF-16, ISO 8859-1
/// and US-ASCII pass: in all of them every ASCII character is that byte, alone or beside a zero. Others could
/// hide markup from `XmlScanner`, and would have iconv run on what strangers send. An encoding that the
/// document is obviously not in is refused as well. *One thread at a time.*
class XmlEncoding {
public:
    static constexpr std::size_t kMaxHead = 1'024;

    /// Takes the next bytes of the document; does nothing once it has seen enough of them.
    /// @return false when the document is refused.
    bool Add(std::string_view piece);

    bool IsRefused() const { return _state == kRefused; }

    /// Whether each character has two bytes, and which of them comes first; known after four bytes.
    bool IsWide() const;
    bool IsBigEndian() const;

    /// Throws `XmlException` for a document that is refused.
    [[noreturn]] void Throw() const;

private:
    enum State { kLooking, kPassed, kRefused };

    void Look();
    void LookAtDeclaration(std::string_view declaration);
    std::size_t Decode(char* text) const;

    State _state = kLooking;
    char _head[kMaxHead];
    std::size_t _size = 0;
    std::string _name;  ///< of the encoding that is refused; empty when the declaration is too long
    bool _isContradiction = false;
    unsigned int _line = 1;
    unsigned int _column = 1;
};

}  // namespace zarip::xml
