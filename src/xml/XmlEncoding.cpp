// SPDX-License-Identifier: MIT

#include "xml/XmlEncoding.h"

#include <strings.h>

#include <algorithm>

#include "zarip/xml/XmlException.h"

namespace zarip::xml {

namespace {

/// How ASCII stands in a document.
enum Form : unsigned int { kBytes = 1, kMarkedBytes = 2, kBigEndian = 4, kLittleEndian = 8 };

/// What may be declared, and with which forms. UTF-8 with all: documents in UTF-16 often say so, and are read
/// as UTF-16. Other contradictions would be read wrong, or in one way first and then in another.
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

/// The forms that the encoding passes with; 0 for any other encoding.
unsigned int FormsOf(const std::string& name) {
    for (const auto& passed : kPassed) {
        if (::strcasecmp(name.c_str(), passed.name) == 0) {
            return passed.forms;
        }
    }
    return 0;
}

/// By the first four bytes.
Form FormOf(std::string_view head) {
    using namespace std::string_view_literals;
    if (StartsWith(head, "\xFE\xFF"sv) || StartsWith(head, "\0<"sv)) {
        return kBigEndian;
    }
    if (StartsWith(head, "\xFF\xFE"sv) || StartsWith(head, "<\0"sv)) {
        return kLittleEndian;
    }
    return StartsWith(head, "\xEF\xBB\xBF"sv) ? kMarkedBytes : kBytes;
}

/// How the parser tells encodings that are not written in the text, by the first four bytes.
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
    return (FormOf({_head, _size}) & (kBigEndian | kLittleEndian)) != 0;
}

bool XmlEncoding::IsBigEndian() const {
    return FormOf({_head, _size}) == kBigEndian;
}

bool XmlEncoding::Add(std::string_view piece) {
    if (_state == kLooking) {
        _size += piece.copy(_head + _size, kMaxHead - _size);
        Look();
    }
    return _state != kRefused;
}

void XmlEncoding::Look() {
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
    // Not only once the end is there: after the encoding the parser reads in it, and may find an end that is
    // written otherwise.
    const std::size_t end = text.find("?>");
    LookAtDeclaration(text.substr(0, end));
    if (_state == kLooking && end != std::string_view::npos) {
        _state = kPassed;
    } else if (_state == kLooking && _size == kMaxHead) {
        _state = kRefused;
    }
}

/// The head as ASCII, with '?' for all other characters and without the mark of the byte order.
std::size_t XmlEncoding::Decode(char* text) const {
    const auto at = [this](std::size_t i) { return static_cast<unsigned char>(_head[i]); };
    const Form form = FormOf({_head, _size});
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

void XmlEncoding::LookAtDeclaration(std::string_view declaration) {
    constexpr std::string_view kKey = "encoding";
    for (std::size_t at = declaration.find(kKey); at != std::string_view::npos;
         at = declaration.find(kKey, at)) {
        at += kKey.size();
        // What is not written as it must be is for the parser to refuse.
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
        const unsigned int forms = FormsOf(name);
        if (!name.empty() && (forms & FormOf({_head, _size})) == 0) {
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
