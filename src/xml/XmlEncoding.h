// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zarip::xml {

/// Detects the encoding at the beginning of a document before the parser sees it. UTF-8, UTF-16, ISO 8859-1
/// and US-ASCII are accepted, because in all of them an ASCII character is that byte, alone or next to a
/// zero. Other encodings could hide markup from `XmlScanner`, and iconv would run on input from strangers. An
/// encoding that contradicts the first bytes is refused as well. *One thread at a time.*
class XmlEncoding {
public:
    static constexpr std::size_t kMaxHead = 1'024;

    /// Takes the next bytes of the document. Does nothing once the encoding is decided.
    /// @return false if the document is refused.
    bool Add(std::string_view piece);

    bool IsRefused() const { return _state == kRefused; }

    /// These functions return whether each character has two bytes and which of them comes first. The results
    /// are known after four bytes.
    bool IsWide() const;
    bool IsBigEndian() const;

    /// Throws the `XmlException` for a refused document.
    [[noreturn]] void Throw() const;

private:
    enum State { kLooking, kPassed, kRefused };

    void DetectEncoding();
    void ReadDeclaration(std::string_view declaration);
    std::size_t Decode(char* text) const;

    State _state = kLooking;
    char _head[kMaxHead];
    std::size_t _size = 0;
    std::string _name;  ///< of the refused encoding; empty if the declaration is too long
    bool _isContradiction = false;
    unsigned int _line = 1;
    unsigned int _column = 1;
};

}  // namespace zarip::xml
