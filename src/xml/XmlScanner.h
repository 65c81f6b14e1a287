// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <string_view>

#include "xml/XmlEncoding.h"

namespace zarip::xml {

/// Scans a document before the parser sees it and finds the beginning and end of each piece of markup (tags,
/// comments, processing instructions, references, the document type). It has two purposes:
///
/// - It refuses zero bytes and documents that exceed a limit (see XmlLimits.h) before the parser sees them.
///   The parser itself counts attributes only after it has compared them with each other.
/// - It finds how many bytes end with a complete piece of markup. libxml2 rescans an incomplete piece each
///   time more of it arrives. A parser that only gets complete pieces scans each byte once.
///
/// It only understands documents that are well-formed so far. That is sufficient, because the parser stops at
/// the first error. *One thread at a time.*
class XmlScanner {
public:
    /// Scans the next bytes. The first call must pass at least four bytes or the whole document.
    /// @return how many of the bytes can be passed to the parser: the bytes up to the end of the last
    ///     complete piece of markup, or all bytes if no piece is open. It is less if the document is refused;
    ///     the following bytes are not scanned then.
    std::size_t Scan(std::string_view bytes);

    bool IsRefused() const { return IsEncodingRefused() || _refusal != nullptr; }

    /// Returns why the document is refused, or null if it is not or if the reason is its encoding; then call
    /// `ThrowEncoding`.
    const char* GetRefusal() const { return _refusal; }
    bool IsEncodingRefused() const { return _encoding.IsRefused(); }
    [[noreturn]] void ThrowEncoding() const { _encoding.Throw(); }

private:
    enum State {
        kText,
        kCData,
        kReference,
        kOpening,       ///< after "<"
        kDeclaration,   ///< after "<!", before its kind is known
        kCDataOpening,  ///< after "<!["
        kTag,
        kComment,
        kInstruction,
        kType,          ///< in the document type, outside of its square brackets
        kSubset,        ///< in these brackets
        kSubsetMarkup,  ///< in a declaration in these brackets
    };

    std::size_t ScanBytes(std::string_view bytes);
    std::size_t ScanPairs(std::string_view bytes);
    std::size_t SkipPlain(std::string_view bytes, std::size_t at) const;
    void CountMarkup(std::size_t bytes);
    void TakeCharacter(unsigned int character);
    void TakeText(unsigned int character);
    void TakeOpening(unsigned int character);
    void TakeDeclaration(unsigned int character);
    void TakeTag(unsigned int character);
    void TakeType(unsigned int character);
    void TakeSubset(unsigned int character);
    bool TakeQuoted(unsigned int character);
    void TakeEnd(unsigned int character, unsigned int repeated, unsigned int times);

    bool IsInMarkup() const { return _state != kText && _state != kCData; }
    void Refuse(const char* refusal) { _refusal = _refusal != nullptr ? _refusal : refusal; }
    void EnterState(State state);
    void LeaveMarkup() { EnterState(_isInSubset ? kSubset : kText); }

    XmlEncoding _encoding;
    const char* _refusal = nullptr;
    State _state = kText;
    bool _isInSubset = false;  ///< whether a comment or an instruction is in the square brackets
    unsigned int _quote = 0;   ///< the quotation mark that ends the current string, or 0
    unsigned int _run = 0;     ///< the number of characters of an end mark seen so far: 2 after "--" of "-->"
    std::size_t _length = 0;   ///< of the open piece of markup, in bytes
    std::size_t _attributes = 0;  ///< the number of attributes of the open tag
    unsigned char _half = 0;      ///< the first byte of a pair whose second byte has not arrived
    bool _hasHalf = false;
};

}  // namespace zarip::xml
