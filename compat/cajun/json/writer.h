// SPDX-License-Identifier: MIT

#pragma once

#include <array>
#include <charconv>
#include <cmath>
#include <ostream>
#include <string>
#include <string_view>

#include "elements.h"

namespace json::detail {

// How each byte of a string is written: the letter after a backslash, or one of these.
constexpr char kPlain = 0;
constexpr char kNumeric = 'u';

constexpr std::array<char, 256> MakeEscapes() {
    std::array<char, 256> escapes{};
    for (std::size_t byte = 0; byte < escapes.size(); ++byte) {
        escapes[byte] = byte < 0x20 || byte >= 0x7F ? kNumeric : kPlain;
    }
    escapes['"'] = '"';
    escapes['\\'] = '\\';
    escapes['\b'] = 'b';
    escapes['\f'] = 'f';
    escapes['\n'] = 'n';
    escapes['\r'] = 'r';
    escapes['\t'] = 't';
    return escapes;
}

inline constexpr std::array<char, 256> kEscapes = MakeEscapes();

}  // namespace json::detail

namespace json {

/// Writes elements as plain ASCII. The flags and the locale of the stream have no effect. A failed write sets
/// the state of the stream. The pretty form has one element on each line and a tab for each level.
///
/// JSON has no infinity and no "not a number", so both are written as null. Each byte of a string that is not
/// UTF-8 is written as U+FFFD.
class Writer {
public:
    static void Write(const Array& array, std::ostream& stream, bool pretty = true) {
        WriteAny(array, stream, pretty);
    }
    static void Write(const Object& object, std::ostream& stream, bool pretty = false) {
        WriteAny(object, stream, pretty);
    }
    static void Write(const UnknownElement& element, std::ostream& stream, bool pretty = true) {
        Text text(stream, pretty);
        element.Accept(text);
        text.Flush();
    }
    static void Write(const Number& number, std::ostream& stream) { WriteAny(number, stream, false); }
    static void Write(const String& string, std::ostream& stream) { WriteAny(string, stream, false); }
    static void Write(const Boolean& boolean, std::ostream& stream) { WriteAny(boolean, stream, false); }
    static void Write(const Null& null, std::ostream& stream) { WriteAny(null, stream, false); }

private:
    // Collects the output and passes it to the stream in pieces.
    class Text final : public ConstVisitor {
    public:
        Text(std::ostream& stream, bool pretty) : _stream(stream), _pretty(pretty) {
            _pending.reserve(2 * kPiece);
        }

        void Flush() {
            _stream.write(_pending.data(), static_cast<std::streamsize>(_pending.size()));
            _pending.clear();
        }

        void Visit(const Array& array) override {
            WriteList(array, '[', ']', [this](const UnknownElement& element) { element.Accept(*this); });
        }

        void Visit(const Object& object) override {
            WriteList(object, '{', '}', [this](const Object::Member& member) {
                WriteString(member.name);
                _pending += _pretty ? std::string_view(" : ") : std::string_view(":");
                member.element.Accept(*this);
            });
        }

        void Visit(const Number& number) override {
            // Below this magnitude a double can hold every integer.
            constexpr double kExactIntegers = 9007199254740992.0;
            const double value = number.Value();
            if (!std::isfinite(value)) {
                _pending += "null";
                return;
            }
            char digits[40];
            const bool integer = std::fabs(value) <= kExactIntegers && value == std::trunc(value) &&
                                 !(value == 0.0 && std::signbit(value));
            char* const end =
                integer
                    ? std::to_chars(digits, digits + sizeof(digits), static_cast<long long>(value)).ptr
                    : std::to_chars(digits, digits + sizeof(digits), value, std::chars_format::general, 20)
                          .ptr;
            _pending.append(digits, end);
        }

        void Visit(const String& string) override { WriteString(string.Value()); }
        void Visit(const Boolean& boolean) override { _pending += boolean.Value() ? "true" : "false"; }
        void Visit(const Null& /*null*/) override { _pending += "null"; }

    private:
        static constexpr std::size_t kPiece = 4096;

        template <class List, class WriteOne>
        void WriteList(const List& list, char open, char close, WriteOne writeOne) {
            _pending += open;
            if (!list.Empty()) {
                ++_level;
                bool first = true;
                for (const auto& one : list) {
                    if (!first) {
                        _pending += ',';
                    }
                    first = false;
                    NewLine();
                    writeOne(one);
                    if (_pending.size() > kPiece) {
                        Flush();
                    }
                }
                --_level;
                NewLine();
            }
            _pending += close;
        }

        void NewLine() {
            if (_pretty) {
                _pending += '\n';
                _pending.append(_level, '\t');
            }
        }

        void WriteString(std::string_view string) {
            _pending += '"';
            const char* at = string.data();
            const char* const end = at + string.size();
            while (at != end) {
                const char* const plain = at;
                while (at != end && detail::kEscapes[static_cast<unsigned char>(*at)] == detail::kPlain) {
                    ++at;
                }
                _pending.append(plain, at);
                if (at != end) {
                    at = WriteEscape(at, end);
                }
            }
            _pending += '"';
        }

        // Returns the end of the character that it wrote.
        const char* WriteEscape(const char* at, const char* end) {
            const auto byte = static_cast<unsigned char>(*at);
            const char escape = detail::kEscapes[byte];
            if (escape == detail::kNumeric) {
                unsigned int code = byte;
                at = byte < 0x80 ? at + 1 : Decode(at, end, code);
                if (code >= 0x10000) {
                    WriteUnit(0xD800 + ((code - 0x10000) >> 10));
                    code = 0xDC00 + ((code - 0x10000) & 0x3FF);
                }
                WriteUnit(code);
                return at;
            }
            _pending += '\\';
            _pending += escape;
            return at + 1;
        }

        void WriteUnit(unsigned int unit) {
            static constexpr char kDigits[] = "0123456789abcdef";
            const char text[] = {'\\',
                                 'u',
                                 kDigits[unit >> 12],
                                 kDigits[(unit >> 8) & 0xF],
                                 kDigits[(unit >> 4) & 0xF],
                                 kDigits[unit & 0xF]};
            _pending.append(text, sizeof(text));
        }

        // Returns the end of the UTF-8 sequence. A byte that does not begin one is written as U+FFFD.
        static const char* Decode(const char* at, const char* end, unsigned int& code) {
            constexpr unsigned int kLeast[] = {0, 0x80, 0x800, 0x10000};
            const auto lead = static_cast<unsigned char>(*at++);
            code = 0xFFFD;
            if (lead < 0xC2 || lead > 0xF4) {
                return at;
            }
            const unsigned int more = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : 1;
            unsigned int value = lead & (0x3FU >> more);
            const char* next = at;
            for (unsigned int i = 0; i < more; ++i, ++next) {
                if (next == end || (static_cast<unsigned char>(*next) & 0xC0) != 0x80) {
                    return at;
                }
                value = (value << 6) | (static_cast<unsigned char>(*next) & 0x3FU);
            }
            if (value < kLeast[more] || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
                return at;
            }
            code = value;
            return next;
        }

        std::ostream& _stream;
        const bool _pretty;
        std::size_t _level = 0;
        std::string _pending;
    };

    template <class T>
    static void WriteAny(const T& element, std::ostream& stream, bool pretty) {
        Text text(stream, pretty);
        text.Visit(element);
        text.Flush();
    }
};

}  // namespace json
