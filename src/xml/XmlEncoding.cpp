// SPDX-License-Identifier: MIT

#include "xml/XmlEncoding.h"

#include <strings.h>

#include <algorithm>

#include "zarip/xml/XmlException.h"

namespace zarip::xml {

namespace {

/// How ASCII characters are represented in a document.
enum Form : unsigned int { kBytes = 1, kMarkedBytes = 2, kBigEndian = 4, kLittleEndian = 8 };

/// The encodings that may be declared, and the forms with which they may be combined. UTF-8 is accepted with
/// all forms, because documents in UTF-16 often declare it and are read as UTF-16. With other contradictions
/// the document, or a part of it, would be read in a wrong encoding.
constexpr struct {
    const char* name;
    unsigned int forms;
} kPassed[] = {
    {"UTF-8", kBytes | kMarkedBytes | kBigEndian | kLittleEndian},
    {"UTF8", kBytes | kMarkedBytes | kBigEndian | kLittleEndian},
    {"UTF-16", kBigEndian | kLittleEndian},
    {"UTF-16BE", kBigEndian},
    {"UTF-16LE", kLittleEndian},
    {"ISO-8859-1", kBytes},
    {"US-ASCII", kBytes | kMarkedBytes},
    {"ASCII", kBytes | kMarkedBytes},
};
constexpr std::string_view kStart = "<?xml";
constexpr std::string_view kBlanks = " \t\r\n";

bool StartsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

/// Returns the forms with which the encoding is accepted; 0 for other encodings.
unsigned int FindForms(const std::string& name) {
    for (const auto& passed : kPassed) {
        if (::strcasecmp(name.c_str(), passed.name) == 0) {
            return passed.forms;
        }
    }
    return 0;
}

/// Detects the form by the first four bytes.
Form DetectForm(std::string_view head) {
    using namespace std::string_view_literals;
    if (StartsWith(head, "\xFE\xFF"sv) || StartsWith(head, "\0<"sv)) {
        return kBigEndian;
    }
    if (StartsWith(head, "\xFF\xFE"sv) || StartsWith(head, "<\0"sv)) {
        return kLittleEndian;
    }
    return StartsWith(head, "\xEF\xBB\xBF"sv) ? kMarkedBytes : kBytes;
}

/// Detects, as the parser does, encodings by their first four bytes that need no declaration, and returns
/// their names. All of them are refused.
const char* FindRefused(std::string_view head) {
    using namespace std::string_view_literals;
    if (head == "\x4C\x6F\xA7\x94"sv) {
        return "EBCDIC";
    }
    const bool isWide =
        StartsWith(head, "\0\0"sv) || head == "<\0\0\0"sv || head == "\0<\0\0"sv || head == "\xFF\xFE\0\0"sv;
    return isWide ? "UCS-4" : nullptr;
}

}  // namespace

bool XmlEncoding::IsWide() const {
    return (DetectForm({_head, _size}) & (kBigEndian | kLittleEndian)) != 0;
}

bool XmlEncoding::IsBigEndian() const {
    return DetectForm({_head, _size}) == kBigEndian;
}

bool XmlEncoding::Add(std::string_view piece) {
    if (_state == kLooking) {
        _size += piece.copy(_head + _size, kMaxHead - _size);
        DetectEncoding();
    }
    return _state != kRefused;
}

void XmlEncoding::DetectEncoding() {
    if (_size < 4) {
        return;
    }
    if (const char* const refused = FindRefused({_head, 4})) {
        _name = refused;
        _state = kRefused;
        return;
    }
    char decoded[kMaxHead];
    const std::string_view text(decoded, Decode(decoded));
    if (text.size() <= kStart.size()) {
        _state = kStart.substr(0, text.size()) == text ? kLooking : kPassed;
        return;
    }
    if (!StartsWith(text, kStart) || kBlanks.find(text[kStart.size()]) == std::string_view::npos) {
        _state = kPassed;
        return;
    }
    // The declaration is checked before its end has arrived. The parser switches to the declared encoding at
    // once and might find an end that is encoded differently.
    const std::size_t end = text.find("?>");
    ReadDeclaration(text.substr(0, end));
    if (_state == kLooking && end != std::string_view::npos) {
        _state = kPassed;
    } else if (_state == kLooking && _size == kMaxHead) {
        _state = kRefused;
    }
}

/// Converts the head to ASCII, with '?' for all other characters and without the byte order mark.
std::size_t XmlEncoding::Decode(char* text) const {
    const auto at = [this](std::size_t i) { return static_cast<unsigned char>(_head[i]); };
    const Form form = DetectForm({_head, _size});
    const std::size_t width = form == kBigEndian || form == kLittleEndian ? 2 : 1;
    const std::size_t begin = form == kMarkedBytes ? 3 : width == 2 && at(0) >= 0xFE ? 2 : 0;
    std::size_t length = 0;
    for (std::size_t i = begin; i + width <= _size; i += width) {
        const unsigned int code = width == 1           ? at(i)
                                  : form == kBigEndian ? at(i) * 256U + at(i + 1)
                                                       : at(i + 1) * 256U + at(i);
        text[length++] = code != 0 && code < 0x80 ? static_cast<char>(code) : '?';
    }
    return length;
}

void XmlEncoding::ReadDeclaration(std::string_view declaration) {
    constexpr std::string_view kKey = "encoding";
    for (std::size_t at = declaration.find(kKey); at != std::string_view::npos;
         at = declaration.find(kKey, at)) {
        at += kKey.size();
        // A malformed declaration is ignored here, because the parser refuses it.
        std::size_t begin = declaration.find_first_not_of(kBlanks, at);
        if (begin == std::string_view::npos || declaration[begin] != '=') {
            continue;
        }
        begin = declaration.find_first_not_of(kBlanks, begin + 1);
        if (begin == std::string_view::npos || (declaration[begin] != '"' && declaration[begin] != '\'')) {
            continue;
        }
        const std::size_t end = declaration.find(declaration[begin], begin + 1);
        if (end == std::string_view::npos) {
            continue;
        }
        const std::string name(declaration.substr(begin + 1, end - begin - 1));
        const unsigned int forms = FindForms(name);
        if (!name.empty() && (forms & DetectForm({_head, _size})) == 0) {
            const std::string_view before = declaration.substr(0, begin + 1);
            _name = name;
            _isContradiction = forms != 0;
            _line = 1 + static_cast<unsigned int>(std::count(before.begin(), before.end(), '\n'));
            _column = static_cast<unsigned int>(before.size() - (before.rfind('\n') + 1)) + 1;
            _state = kRefused;
            return;
        }
    }
}

void XmlEncoding::Throw() const {
    const char* const error = _isContradiction ? "' is not that of the document" : "' is not supported";
    throw XmlException(_name.empty() ? "the XML declaration is too long" : "encoding '" + _name + error,
                       _line, _column);
}

}  // namespace zarip::xml
