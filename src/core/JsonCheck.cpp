// SPDX-License-Identifier: MIT

#include "core/JsonCheck.h"

#include <cajun/json/elements.h>
#include <locale.h>
#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <string>
#include <utility>

#include "cutil/utf8.h"

namespace zarip::core {

namespace {

constexpr std::size_t kMaxDepth = 200;
constexpr std::size_t kMaxElements = 1'000'000;
constexpr std::size_t kMaxMembers = 10'000;

/// Numbers with fewer characters and no exponent fit a double.
constexpr std::size_t kShortNumber = 300;

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

/// Whether a well-formed number fits a double, in any locale.
bool FitsDouble(const std::string& number) {
    static const locale_t s_classic = ::newlocale(LC_ALL_MASK, "C", nullptr);
    return std::isfinite(::strtod_l(number.c_str(), nullptr, s_classic));
}

class JsonCheck {
public:
    explicit JsonCheck(std::string_view text) : _text(text) {}

    void Run() {
        do {
            SkipBlanks();
            TakeValue();
            TakeEnds();
        } while (_depth > 0);
        SkipBlanks();
        if (_at != _text.size()) {
            Fail("unexpected character");
        }
    }

private:
    [[noreturn]] void Fail(const char* what) const { FailAt(what, _at); }

    [[noreturn]] void FailAt(const char* what, std::size_t at) const {
        const std::string_view before = _text.substr(0, at);
        const std::size_t line = static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n')) + 1;
        const std::size_t column = at - (before.rfind('\n') + 1) + 1;
        throw json::Exception("invalid JSON: " + std::string(what) + " (line " + std::to_string(line) +
                              ", column " + std::to_string(column) + ")");
    }

    /// The next character, or a zero at the end. A zero inside the document is never valid, so the two need
    /// not be distinguished.
    char Next() const { return _at < _text.size() ? _text[_at] : '\0'; }

    bool Take(char c) {
        const bool isNext = _at < _text.size() && _text[_at] == c;
        _at += isNext ? 1 : 0;
        return isNext;
    }

    void Expect(char c) {
        if (!Take(c)) {
            Fail(_at == _text.size() ? "unexpected end" : "unexpected character");
        }
    }

    void SkipBlanks() { _at = std::min(_text.find_first_not_of(" \t\r\n", _at), _text.size()); }

    /// Reads a value, or the beginning of an array or object and the name before its first value.
    void TakeValue() {
        if (++_elements > kMaxElements) {
            Fail("too many elements");
        }
        switch (Next()) {
            case '[':
                Open(false);
                break;
            case '{':
                Open(true);
                break;
            case '"':
                TakeString();
                break;
            case 't':
                TakeWord("true");
                break;
            case 'f':
                TakeWord("false");
                break;
            case 'n':
                TakeWord("null");
                break;
            default:
                TakeNumber();
        }
    }

    void Open(bool isObject) {
        if (_depth == kMaxDepth) {
            Fail("nested too deep");
        }
        _levels[_depth++] = isObject ? 1 : 0;
        _isOpened = true;
        ++_at;
        SkipBlanks();
        if (isObject && Next() != '}') {
            TakeName();
        }
    }

    void TakeName() {
        if (Next() != '"') {
            Fail(_at == _text.size() ? "unexpected end" : "unexpected character");
        }
        TakeString();
        SkipBlanks();
        Expect(':');
    }

    /// Reads what follows a value: the ends of arrays and objects, then a comma or the end of the document.
    void TakeEnds() {
        while (_depth > 0) {
            SkipBlanks();
            std::size_t& level = _levels[_depth - 1];
            const bool isFirst = std::exchange(_isOpened, false);
            if (Take(level == 0 ? ']' : '}')) {
                --_depth;
                continue;
            }
            if (isFirst) {
                return;  // the first value of the new level
            }
            Expect(',');
            SkipBlanks();
            if (level != 0) {
                if (++level > kMaxMembers) {
                    Fail("too many members");
                }
                TakeName();
            }
            return;
        }
    }

    void TakeWord(std::string_view word) {
        if (_text.substr(_at, word.size()) != word) {
            Fail("unexpected character");
        }
        _at += word.size();
    }

    bool TakeDigits() {
        const std::size_t begin = _at;
        while (IsDigit(Next())) {
            ++_at;
        }
        return _at != begin;
    }

    void TakeNumber() {
        const std::size_t begin = _at;
        Take('-');
        bool isValid = Take('0') || TakeDigits();
        isValid = isValid && (!Take('.') || TakeDigits());
        const bool hasExponent = isValid && (Take('e') || Take('E'));
        if (hasExponent) {
            static_cast<void>(Take('+') || Take('-'));
            isValid = TakeDigits();
        }
        if (!isValid) {
            Fail(_at == _text.size() ? "unexpected end" : "unexpected character");
        }
        if ((hasExponent || _at - begin > kShortNumber) &&
            !FitsDouble(std::string(_text.substr(begin, _at - begin)))) {
            FailAt("number too large", begin);
        }
    }

    void TakeString() {
        ++_at;
        while (!Take('"')) {
            const char next = Next();
            if (next == '\\') {
                TakeEscape();
            } else if (static_cast<unsigned char>(next) < 0x20) {
                Fail(_at == _text.size() ? "unexpected end" : "control character in a string");
            } else if (static_cast<unsigned char>(next) < 0x80) {
                do {
                    ++_at;
                } while (IsPlain(Next()));
            } else {
                std::string_view rest = _text.substr(_at);
                if (cutil::utf8_take(rest) == cutil::kNoCharacter) {
                    Fail("not UTF-8");
                }
                _at = _text.size() - rest.size();
            }
        }
    }

    static bool IsPlain(char c) { return c >= 0x20 && c < 0x7F && c != '"' && c != '\\'; }

    void TakeEscape() {
        const std::size_t begin = _at++;
        if (!Take('u')) {
            if (_at == _text.size() ||
                std::string_view("\"\\/bfnrt").find(_text[_at]) == std::string_view::npos) {
                FailAt("invalid escape", begin);
            }
            ++_at;
            return;
        }
        // Characters beyond U+FFFF are pairs of surrogates.
        const unsigned int unit = TakeUnit(begin);
        const bool isFirst = unit >= 0xD800 && unit < 0xDC00;
        const bool isSecond = unit >= 0xDC00 && unit < 0xE000;
        const bool isPair = isFirst && Take('\\') && Take('u') && (TakeUnit(begin) & 0xFC00U) == 0xDC00;
        if (isSecond || isFirst != isPair) {
            FailAt("invalid escape", begin);
        }
    }

    unsigned int TakeUnit(std::size_t begin) {
        unsigned int unit = 0;
        for (int i = 0; i < 4; ++i) {
            const char c = Next();
            const char lower = static_cast<char>(c | 0x20);
            const int digit = IsDigit(c) ? c - '0' : lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
            if (digit < 0) {
                FailAt("invalid escape", begin);
            }
            unit = unit * 16 + static_cast<unsigned int>(digit);
            ++_at;
        }
        return unit;
    }

    const std::string_view _text;
    std::size_t _at = 0;
    std::size_t _elements = 0;
    std::size_t _depth = 0;
    std::size_t _levels[kMaxDepth];  ///< 0 for an array, otherwise how many members the object has so far
    bool _isOpened = false;          ///< the innermost level has just begun
};

}  // namespace

void CheckJson(std::string_view text) {
    JsonCheck(text).Run();
}

}  // namespace zarip::core
