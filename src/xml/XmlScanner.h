// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <string_view>

#include "xml/XmlEncoding.h"

namespace zarip::xml {

/// Follows a document on its way to the parser and knows where its pieces of markup (tags, comments,
/// processing instructions, references, the document type) begin and end. It has two purposes:
///
/// - It refuses what would cost the parser more than its length (see XmlLimits.h), and zero bytes, before the
///   parser sees them. The parser counts attributes only when it has compared them with each other.
/// - It tells how much of the document ends with a whole piece of markup. A parser that gets no half piece
///   looks at each byte once; libxml2 begins again with a half one each time more of it arrives.
///
/// It understands documents that are well-formed up to where it has looked. That is enough as long as the
/// parser stops at the first error. *One thread at a time.*
class XmlScanner {
public:
    /// Looks at the next bytes. The first call gets at least four, or the whole document.
    /// @return how many of the bytes the parser can be given: all up to the end of a piece of markup, or all
    /// where none is open. Less when the document is refused; whatever follows is not looked at then.
    std::size_t Scan(std::string_view bytes);

    bool IsRefused() const { return IsEncodingRefused() || _refusal != nullptr; }

    /// Why the document is refused; null for its encoding, which `ThrowEncoding` tells.
    const char* GetRefusal() const { return _refusal; }
    bool IsEncodingRefused() const { return _encoding.IsRefused(); }
    [[noreturn]] void ThrowEncoding() const { _encoding.Throw(); }

private:
    enum State {
        kText,
        kCData,
        kReference,
        kOpening,       ///< after "<"
        kDeclaration,   ///< after "<!", before it shows what it is
        kCDataOpening,  ///< after "<!["
        kTag,
        kComment,
        kInstruction,
        kType,          ///< the document type, outside of its square brackets
        kSubset,        ///< inside of them
        kSubsetMarkup,  ///< a declaration there
    };

    std::size_t ScanBytes(std::string_view bytes);
    std::size_t ScanPairs(std::string_view bytes);
    std::size_t SkipPlain(std::string_view bytes, std::size_t at) const;
    void Count(std::size_t bytes);
    void Take(unsigned int character);
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
    void Enter(State state);
    void Leave() { Enter(_isInSubset ? kSubset : kText); }

    XmlEncoding _encoding;
    const char* _refusal = nullptr;
    State _state = kText;
    bool _isInSubset = false;     ///< a comment or a processing instruction may be there or elsewhere
    unsigned int _quote = 0;      ///< the character that ends what is quoted, or 0
    unsigned int _run = 0;        ///< how much of an end mark has been seen: 2 after "--" of "-->"
    std::size_t _length = 0;      ///< of the open piece of markup, in bytes
    std::size_t _attributes = 0;  ///< of the open tag
    unsigned char _half = 0;      ///< the first of two bytes, when a pair was divided
    bool _hasHalf = false;
};

}  // namespace zarip::xml
