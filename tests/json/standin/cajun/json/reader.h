// SPDX-License-Identifier: MIT

#pragma once

#include <cstdlib>
#include <istream>
#include <iterator>
#include <string>

#include "elements.h"

namespace json {

/// Trusts its text as CAJUN's does: it ends the process at the end of a text and when it recurses too deep,
/// and takes much that is not JSON.
class Reader {
public:
    template <class Element>
    static void Read(Element& element, std::istream& stream) {
        const std::string text{std::istreambuf_iterator<char>(stream), {}};
        std::size_t at = 0;
        UnknownElement root = ReadValue(text, at, 0);
        element = Element(static_cast<const UnknownElement&>(root));
    }

private:
    static char Next(const std::string& text, std::size_t& at) {
        at = text.find_first_not_of(" \t\r\n,:", at);
        if (at == std::string::npos) {
            std::abort();
        }
        return text[at];
    }

    static UnknownElement ReadValue(const std::string& text, std::size_t& at, int depth) {
        if (depth > 1'000) {
            std::abort();
        }
        switch (const char next = Next(text, at)) {
            case '[': {
                Array array;
                for (++at; Next(text, at) != ']';) {
                    array.Insert(ReadValue(text, at, depth + 1));
                }
                ++at;
                return array;
            }
            case '{': {
                Object object;
                for (++at; Next(text, at) != '}';) {
                    const std::string name = ReadString(text, at);
                    object.Insert(Object::Member(name, ReadValue(text, at, depth + 1)));
                }
                ++at;
                return object;
            }
            case '"':
                return String(ReadString(text, at));
            case 't':
            case 'f':
                at += next == 't' ? 4 : 5;
                return Boolean(next == 't');
            case 'n':
                at += 4;
                return Null();
            default: {
                char* end = nullptr;
                const double value = std::strtod(text.c_str() + at, &end);
                at = static_cast<std::size_t>(end - text.c_str());
                return Number(value);
            }
        }
    }

    static std::string ReadString(const std::string& text, std::size_t& at) {
        const std::size_t begin = at + 1;
        for (at = begin; text.at(at) != '"'; ++at) {
            at += text.at(at) == '\\' ? 1 : 0;  // escapes stay as they are
        }
        return text.substr(begin, at++ - begin);
    }
};

}  // namespace json
