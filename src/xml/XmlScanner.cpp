// SPDX-License-Identifier: MIT

#include "xml/XmlScanner.h"

#include <cstring>

#include "xml/XmlLimits.h"

namespace zarip::xml {

namespace {

bool IsContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80;
}

/// Returns the first position of the character between two positions, or the second position if there is no
/// such character.
std::size_t FindFirst(std::string_view bytes, std::size_t begin, std::size_t end, char character) {
    const void* const found = std::memchr(bytes.data() + begin, character, end - begin);
    return found != nullptr ? static_cast<std::size_t>(static_cast<const char*>(found) - bytes.data()) : end;
}

/// Returns the length without an incomplete UTF-8 character at the end.
std::size_t CutHalfCharacter(std::string_view bytes) {
    std::size_t begin = bytes.size();
    while (begin > 0 && bytes.size() - begin < 4 && IsContinuation(bytes[begin - 1])) {
        --begin;
    }
    const auto lead = begin > 0 ? static_cast<unsigned char>(bytes[begin - 1]) : 0U;
    const std::size_t wanted = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
    return bytes.size() - begin + 1 < wanted ? begin - 1 : bytes.size();
}

}  // namespace

std::size_t XmlScanner::Scan(std::string_view bytes) {
    if (IsRefused() || !_encoding.Add(bytes)) {
        return 0;
    }
    return _encoding.IsWide() ? ScanPairs(bytes) : ScanBytes(bytes);
}

std::size_t XmlScanner::ScanBytes(std::string_view bytes) {
    const std::size_t zero = FindFirst(bytes, 0, bytes.size(), '\0');
    std::size_t whole = 0;
    for (std::size_t at = 0; at < zero && _refusal == nullptr;) {
        const std::size_t next = SkipPlain(bytes.substr(0, zero), at);
        if (IsInMarkup()) {
            CountMarkup(next - at);
        } else {
            whole = next;
        }
        at = next;
        if (at < zero && _refusal == nullptr) {
            TakeCharacter(static_cast<unsigned char>(bytes[at++]));
            whole = IsInMarkup() || _refusal != nullptr ? whole : at;
        }
    }
    if (zero < bytes.size()) {
        Refuse(kZeroByte);
    }
    return whole == bytes.size() ? CutHalfCharacter(bytes) : whole;
}

std::size_t XmlScanner::ScanPairs(std::string_view bytes) {
    const bool isBigEndian = _encoding.IsBigEndian();
    std::size_t whole = 0;
    for (std::size_t at = 0; at < bytes.size() && _refusal == nullptr; ++at) {
        const auto byte = static_cast<unsigned char>(bytes[at]);
        if (!_hasHalf) {
            _half = byte;
            _hasHalf = true;
            continue;
        }
        _hasHalf = false;
        TakeCharacter(isBigEndian ? _half * 256U + byte : byte * 256U + _half);
        whole = IsInMarkup() || _refusal != nullptr ? whole : at + 1;
    }
    return whole;
}

/// Returns the position of the next byte that has a meaning in this state.
std::size_t XmlScanner::SkipPlain(std::string_view bytes, std::size_t at) const {
    const auto skipTo = [&](std::size_t end, char c) { return FindFirst(bytes, at, end, c); };
    const std::size_t size = bytes.size();
    switch (_state) {
        case kText:
            return skipTo(skipTo(size, '<'), '&');
        case kTag:
            return _quote != 0 ? skipTo(size, static_cast<char>(_quote))
                               : skipTo(skipTo(skipTo(size, '>'), '"'), '\'');
        case kComment:
            return _run == 0 ? skipTo(size, '-') : at;
        case kCData:
            return _run == 0 ? skipTo(size, ']') : at;
        default:
            return at;
    }
}

void XmlScanner::CountMarkup(std::size_t bytes) {
    _length += bytes;
    if (_length > kMaxMarkup) {
        Refuse(kTooLongMarkup);
    }
}

void XmlScanner::EnterState(State state) {
    _state = state;
    _quote = 0;
    _run = 0;
}

void XmlScanner::TakeCharacter(unsigned int character) {
    if (character == 0) {
        Refuse(kZeroByte);
        return;
    }
    CountMarkup(IsInMarkup() ? 1 : 0);
    switch (_state) {
        case kText:
        case kReference:
            return TakeText(character);
        case kOpening:
            return TakeOpening(character);
        case kDeclaration:
        case kCDataOpening:
            return TakeDeclaration(character);
        case kTag:
            return TakeTag(character);
        case kCData:
            return TakeEnd(character, ']', 2);
        case kComment:
            return TakeEnd(character, '-', 2);
        case kInstruction:
            return TakeEnd(character, '?', 1);
        case kType:
        case kSubsetMarkup:
            return TakeType(character);
        case kSubset:
            return TakeSubset(character);
    }
}

/// Processes a character of a text or of a reference in it.
void XmlScanner::TakeText(unsigned int character) {
    if (character == '<' || (character == '&' && _state == kText)) {
        _length = _state == kText ? 1 : _length;
        EnterState(character == '<' ? kOpening : kReference);
    } else if (_state == kReference && (character == ';' || character <= ' ')) {
        LeaveMarkup();
    }
}

void XmlScanner::TakeOpening(unsigned int character) {
    if (character == '!') {
        EnterState(kDeclaration);
    } else if (character == '?') {
        EnterState(kInstruction);
    } else {
        EnterState(kTag);
        _attributes = 0;
        TakeTag(character);
    }
}

void XmlScanner::TakeDeclaration(unsigned int character) {
    if (_state == kCDataOpening) {
        EnterState(character == '[' ? kCData : kCDataOpening);
    } else if (character == '-') {
        if (++_run == 2) {
            EnterState(kComment);
        }
    } else if (character == '[' && !_isInSubset) {
        EnterState(kCDataOpening);
    } else {
        EnterState(_isInSubset ? kSubsetMarkup : kType);
        TakeType(character);
    }
}

void XmlScanner::TakeTag(unsigned int character) {
    const bool wasQuoted = _quote != 0;
    if (TakeQuoted(character)) {
        if (!wasQuoted && ++_attributes > kMaxAttributes) {
            Refuse(kTooManyAttributes);
        }
    } else if (character == '>') {
        LeaveMarkup();
    }
}

/// Processes a character of the document type or of a declaration in it.
void XmlScanner::TakeType(unsigned int character) {
    if (TakeQuoted(character)) {
        return;
    }
    if (character == '[' && _state == kType) {
        EnterState(kSubset);
        _isInSubset = true;
    } else if (character == '>') {
        LeaveMarkup();
    }
}

void XmlScanner::TakeSubset(unsigned int character) {
    if (character == '<') {
        EnterState(kOpening);
    } else if (character == ']') {
        _isInSubset = false;
        EnterState(kType);
    }
}

/// Processes quotation marks. Returns whether the character is quoted or a quotation mark.
bool XmlScanner::TakeQuoted(unsigned int character) {
    if (_quote != 0) {
        _quote = character == _quote ? 0 : _quote;
        return true;
    }
    if (character == '"' || character == '\'') {
        _quote = character;
        return true;
    }
    return false;
}

/// Processes a character of a piece that ends with a repeated character and ">".
void XmlScanner::TakeEnd(unsigned int character, unsigned int repeated, unsigned int times) {
    if (character == repeated) {
        _run = _run < times ? _run + 1 : times;
    } else if (character == '>' && _run == times) {
        LeaveMarkup();
    } else {
        _run = 0;
    }
}

}  // namespace zarip::xml
