// SPDX-License-Identifier: MIT

#include <cajun/json/reader.h>

#include <locale.h>
#include <stdlib.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <ios>
#include <istream>
#include <limits>
#include <list>
#include <map>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

// A violated assumption of RapidJSON throws, because it must not end the process.
#define RAPIDJSON_ASSERT(condition) ((condition) ? static_cast<void>(0) : ThrowBrokenParser())
namespace {
[[noreturn]] void ThrowBrokenParser() {
    throw json::Exception("JSON parser: broken invariant");
}
}  // namespace
#if defined(__clang__)
// RapidJSON's stack begins as a null pointer and adds to it. That is harmless but stops a sanitized program.
#pragma clang attribute push(__attribute__((no_sanitize("pointer-overflow"))), apply_to = function)
#endif
#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>
#if defined(__clang__)
#pragma clang attribute pop
#endif

namespace json::detail {

using Location = Reader::Location;
using ScanException = Reader::ScanException;
using ParseException = Reader::ParseException;

namespace {

// Converts a well-formed JSON number, whatever the locale. False if it does not fit.
bool ToDouble(const std::string& number, double& value) {
    static const locale_t s_classic = ::newlocale(LC_ALL_MASK, "C", nullptr);
    value = ::strtod_l(number.c_str(), nullptr, s_classic);
    return std::isfinite(value);
}

constexpr std::size_t kMaxDepth = 200;
constexpr std::size_t kMaxElements = 1'000'000;

// The document as an input stream of RapidJSON, which has NULs only after its end.
class Source {
public:
    using Ch = char;

    explicit Source(std::istream& stream)
        : _text(ReadAll(stream)), _begin(_text.data()), _at(_begin), _end(_at + _text.size()) {}
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    Ch Peek() const { return *_at; }  // a string has a NUL at its end
    Ch Take() { return _at != _end ? *_at++ : '\0'; }
    std::size_t Tell() const { return static_cast<std::size_t>(_at - _begin); }

    // Takes the characters of a string up to the next one that may be special.
    std::string_view TakePlain() {
        const char* const begin = _at;
        while (*_at >= 0x20 && *_at < 0x7F && *_at != '"' && *_at != '\\') {
            ++_at;
        }
        return {begin, static_cast<std::size_t>(_at - begin)};
    }

    // RapidJSON needs these functions to compile, but calls them only if it parses in place.
    Ch* PutBegin() { ThrowBrokenParser(); }
    void* Push(rapidjson::SizeType /*count*/) { ThrowBrokenParser(); }
    void Put(Ch /*c*/) { ThrowBrokenParser(); }
    std::size_t PutEnd(Ch* /*begin*/) { ThrowBrokenParser(); }

    std::string_view Text() const { return _text; }

    // Starts again with 0.0 in place of every number, because RapidJSON refuses some forms of numbers that
    // fit a double, such as 0e400. False if that was done before.
    bool ReplaceNumbers() {
        if (!_shown.empty()) {
            return false;
        }
        _shown = _text;
        for (std::size_t at = 0; at < _text.size();) {
            const bool isNumber = _text[at] == '-' || (_text[at] >= '0' && _text[at] <= '9');
            const std::size_t end = _text[at] == '"' ? FindTokenEnd(at)
                                    : isNumber       ? _text.find_first_not_of("0123456789+-.eE", at)
                                                     : at + 1;
            const std::size_t next = std::min(end, _text.size());
            double value = 0.0;
            // A token that only begins like a number, such as 0e400e1, must stay invalid.
            if (isNumber && next - at > 2 && FindNumberEnd(at) == next &&
                ToDouble(_text.substr(at, next - at), value)) {
                _replaced[at] = value;
                std::fill(&_shown[at], &_shown[next], '0');
                _shown[at + 1] = '.';
            }
            at = next;
        }
        _begin = _shown.data();
        _at = _begin;
        _end = _begin + _shown.size();
        return true;
    }

    const double* FindReplaced(std::size_t at) const {
        const auto found = _replaced.find(at);
        return found != _replaced.end() ? &found->second : nullptr;
    }

    [[noreturn]] void ThrowScan(const std::string& message, std::size_t offset) const {
        throw ScanException(message, Locate(offset));
    }

    [[noreturn]] void ThrowParse(const std::string& message, std::size_t begin, std::size_t end) const {
        throw ParseException(message, Locate(begin), Locate(end));
    }

    // Whether a token begins with this character. Between tokens there is only white space.
    static bool StartsToken(char c) {
        return c != '\0' && std::strchr("[]{},:\"-0123456789tfn", c) != nullptr;
    }

    std::size_t FindTokenEnd(std::size_t begin) const {
        if (begin == _text.size()) {
            return begin;
        }
        if (_text[begin] == '"') {
            std::size_t end = begin + 1;
            while (end < _text.size() && _text[end] != '"') {
                end += _text[end] == '\\' ? 2 : 1;
            }
            return std::min(end + 1, _text.size());
        }
        const std::size_t end = _text.find_first_of(" \t\r\n[]{},:\"", begin);
        return std::max(begin + 1, std::min(end, _text.size()));
    }

    // The end of the number that begins here, or this position if no number begins here.
    std::size_t FindNumberEnd(std::size_t begin) const {
        std::size_t at = begin;
        const auto skipDigits = [&] {
            const std::size_t first = at;
            while (at < _text.size() && _text[at] >= '0' && _text[at] <= '9') {
                ++at;
            }
            return at != first;
        };
        const auto skip = [&](const char* some) {
            const bool isThere = at < _text.size() && _text[at] != '\0' && std::strchr(some, _text[at]);
            at += isThere ? 1 : 0;
            return isThere;
        };
        skip("-");
        if (!skip("0") && !skipDigits()) {
            return begin;
        }
        if (skip(".") && !skipDigits()) {
            return begin;
        }
        if (skip("eE")) {
            skip("+-");
            if (!skipDigits()) {
                return begin;
            }
        }
        return at;
    }

    // The beginning of the string whose closing quote was the last character taken.
    std::size_t FindStringBegin() const {
        std::size_t begin = Tell() - 1;
        std::size_t backslashes = 0;
        do {
            begin = _text.rfind('"', begin - 1);
            backslashes = begin - 1 - _text.find_last_not_of('\\', begin - 1);
        } while (begin != 0 && backslashes % 2 != 0);
        return begin;
    }

private:
    static std::string ReadAll(std::istream& stream) {
        constexpr std::size_t kFirstRead = 4096;
        std::string text;
        std::istream::sentry ready(stream, true);
        if (ready) {
            std::size_t used = 0;
            while (used == text.size()) {
                if (used > std::numeric_limits<unsigned int>::max() / 2) {
                    throw ScanException("Document too long", Location());
                }
                text.resize(std::max(kFirstRead, 2 * used));
                used += ReadSome(stream, &text[used], text.size() - used);
            }
            text.resize(used);
            stream.setstate(std::ios_base::eofbit);
        }
        return text;
    }

    static std::size_t ReadSome(std::istream& stream, char* to, std::size_t size) {
        try {
            return static_cast<std::size_t>(stream.rdbuf()->sgetn(to, static_cast<std::streamsize>(size)));
        } catch (const std::ios_base::failure&) {
            throw Exception("Reading failed");  // a directory, for example
        }
    }

    Location Locate(std::size_t offset) const {
        const std::string_view before = Text().substr(0, offset);
        const std::size_t lastLineEnd = before.rfind('\n');
        Location location;
        location.m_nLine = static_cast<unsigned int>(std::count(before.begin(), before.end(), '\n'));
        location.m_nLineOffset =
            static_cast<unsigned int>(lastLineEnd == before.npos ? offset : offset - lastLineEnd - 1);
        location.m_nDocOffset = static_cast<unsigned int>(offset);
        return location;
    }

    const std::string _text;
    std::string _shown;  // replaces the document once numbers have been replaced
    std::map<std::size_t, double> _replaced;
    const char* _begin;
    const char* _at;
    const char* _end;
};

// UTF-8 that is validated and copied in runs of plain characters instead of one by one.
struct Utf8 : rapidjson::UTF8<> {
    template <class InputStream, class OutputStream>
    static bool Validate(InputStream& in, OutputStream& out) {
        const std::string_view plain = in.TakePlain();
        if (plain.empty()) {
            return rapidjson::UTF8<>::Validate(in, out);
        }
        std::memcpy(out.Push(static_cast<rapidjson::SizeType>(plain.size())), plain.data(), plain.size());
        return true;
    }
};

// malloc() that throws on failure, because RapidJSON does not check for it.
class Allocator {
public:
    [[maybe_unused]] static constexpr bool kNeedFree = true;

    void* Malloc(std::size_t size) { return Realloc(nullptr, 0, size); }
    void* Realloc(void* block, std::size_t /*oldSize*/, std::size_t size) {
        void* const grown = std::realloc(block, size);
        if (grown == nullptr && size != 0) {
            throw std::bad_alloc();
        }
        return grown;
    }
    static void Free(void* block) { std::free(block); }
};

}  // namespace

// Builds the elements in their final places from what RapidJSON reports.
class DocumentBuilder : public rapidjson::BaseReaderHandler<Utf8, DocumentBuilder> {
public:
    explicit DocumentBuilder(const Source& source)
        : _source(source), _hasEscapes(source.Text().find("\\u") != std::string_view::npos) {
        _levels.reserve(16);
    }

    UnknownElement TakeRoot() { return std::move(_root); }

    bool Null() { return Add(json::Null()); }
    bool Bool(bool value) { return Add(Boolean(value)); }
    bool RawNumber(const char* text, rapidjson::SizeType length, bool /*copy*/) {
        return Add(Number(ToNumber(text, text + length)));
    }
    bool String(const char* text, rapidjson::SizeType length, bool /*copy*/) {
        CheckSurrogates(text, length);
        return Add(json::String(std::string(text, length)));
    }

    bool StartArray() {
        CheckDepth();
        Array& array = AddSlot();
        _levels.emplace_back().array = &array;
        return true;
    }
    bool EndArray(rapidjson::SizeType /*count*/) { return EndLevel(); }

    bool StartObject() {
        CheckDepth();
        Object& object = AddSlot();
        Level& level = _levels.emplace_back();
        level.object = &object;
        level.firstHash = _hashes.size();
        return true;
    }
    bool Key(const char* text, rapidjson::SizeType length, bool /*copy*/) {
        CheckSurrogates(text, length);
        Level& level = _levels.back();
        std::list<Object::Member>& members = level.object->_members;
        const std::string& name = members.emplace_back(std::string(text, length)).name;
        bool added = true;
        if (members.size() <= kFewMembers) {
            const std::size_t hash = std::hash<std::string>()(name);
            const auto first = _hashes.begin() + static_cast<std::ptrdiff_t>(level.firstHash);
            added = std::find(first, _hashes.end(), hash) == _hashes.end() ||
                    level.object->Find(name) == std::prev(members.end());
            _hashes.push_back(hash);
        } else if (!level.names.empty()) {
            added = level.names.insert(name).second;
        } else {
            // It is a tree, because an attacker can choose names that all have the same hash.
            for (const Object::Member& member : members) {
                added = level.names.insert(member.name).second;
            }
        }
        if (!added) {
            _source.ThrowParse("Object member already exists: " + name, _source.FindStringBegin(),
                               _source.Tell());
        }
        return true;
    }
    bool EndObject(rapidjson::SizeType /*count*/) {
        _hashes.resize(_levels.back().firstHash);
        return EndLevel();
    }

private:
    static constexpr std::size_t kFewMembers = 64;

    struct Level {
        Array* array = nullptr;  // this or the object is set
        Object* object = nullptr;
        std::size_t firstHash = 0;         // of the first few names
        std::set<std::string_view> names;  // all of them, once there are more than a few
    };

    void CheckDepth() const {
        if (_levels.size() == kMaxDepth) {
            _source.ThrowParse("Nesting too deep", _source.Tell(), _source.Tell() + 1);
        }
    }

    bool EndLevel() {
        _levels.pop_back();
        return true;
    }

    UnknownElement& AddSlot() {
        if (++_elements > kMaxElements) {
            _source.ThrowParse("Too many elements", _source.Tell(), _source.Tell());
        }
        if (_levels.empty()) {
            return _root;
        }
        const Level& level = _levels.back();
        return level.array != nullptr ? *level.array->Insert(UnknownElement())
                                      : level.object->_members.back().element;
    }

    template <class T>
    bool Add(T value) {
        AddSlot() = UnknownElement(std::move(value));
        return true;
    }

    // RapidJSON has validated the bytes and the first halves of escaped surrogate pairs, but not a second
    // half on its own.
    void CheckSurrogates(const char* text, std::size_t length) const {
        const char* const end = text + length;
        for (const char* at = text; _hasEscapes && at != end; ++at) {
            at = static_cast<const char*>(std::memchr(at, 0xED, static_cast<std::size_t>(end - at)));
            if (at == nullptr) {
                return;
            }
            if (static_cast<unsigned char>(at[1]) >= 0xA0) {
                _source.ThrowScan(
                    rapidjson::GetParseError_En(rapidjson::kParseErrorStringUnicodeSurrogateInvalid),
                    _source.FindStringBegin());
            }
        }
    }

    // RapidJSON has checked the form. Its own conversion is not used, because its sum of exponents can
    // overflow.
    double ToNumber(const char* begin, const char* end) const {
        constexpr std::ptrdiff_t kFewDigits = 15;
        if (*begin != '-' && end - begin <= kFewDigits &&
            std::all_of(begin, end, [](char c) { return c >= '0' && c <= '9'; })) {
            long long integer = 0;
            std::from_chars(begin, end, integer);
            return static_cast<double>(integer);
        }
        const std::size_t at = _source.Tell() - static_cast<std::size_t>(end - begin);
        if (const double* const replaced = _source.FindReplaced(at)) {
            return *replaced;
        }
        double value = 0.0;
        if (std::from_chars(begin, end, value).ec == std::errc::result_out_of_range &&
            !ToDouble(std::string(begin, end), value)) {
            _source.ThrowScan(rapidjson::GetParseError_En(rapidjson::kParseErrorNumberTooBig), at);
        }
        return value;
    }

    const Source& _source;
    const bool _hasEscapes;  // of the form \uXXXX
    UnknownElement _root;
    std::vector<Level> _levels;
    std::vector<std::size_t> _hashes;  // of the names in all levels
    std::size_t _elements = 0;
};

namespace {

[[noreturn]] void ThrowError(const Source& source, rapidjson::ParseErrorCode code, std::size_t offset) {
    const std::string_view text = source.Text();
    const bool atEnd = offset == text.size();
    switch (code) {
        case rapidjson::kParseErrorDocumentEmpty:
        case rapidjson::kParseErrorDocumentRootNotSingular:
        case rapidjson::kParseErrorObjectMissName:
        case rapidjson::kParseErrorObjectMissColon:
        case rapidjson::kParseErrorObjectMissCommaOrCurlyBracket:
        case rapidjson::kParseErrorArrayMissCommaOrSquareBracket:
            break;
        case rapidjson::kParseErrorValueInvalid:
            // The error is either a token that is not a value, or a word or number that breaks off after a
            // letter or a minus.
            if (offset == 0 || std::strchr("-aeflnrstu", text[offset - 1]) == nullptr) {
                break;
            }
            [[fallthrough]];
        default:
            source.ThrowScan(rapidjson::GetParseError_En(code), offset);
    }
    if (atEnd) {
        source.ThrowParse("Unexpected end of document", offset, offset);
    }
    if (!Source::StartsToken(text[offset])) {
        source.ThrowScan("Unexpected character", offset);
    }
    source.ThrowParse(
        code == rapidjson::kParseErrorDocumentEmpty ? "Unexpected token" : rapidjson::GetParseError_En(code),
        offset, source.FindTokenEnd(offset));
}

UnknownElement Parse(Source& source) {
    // The parser is iterative, so a deep document needs no stack.
    constexpr unsigned int kFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag |
                                    rapidjson::kParseNumbersAsStringsFlag;
    DocumentBuilder builder(source);
    rapidjson::GenericReader<Utf8, Utf8, Allocator> parser;
    const rapidjson::ParseResult result = parser.Parse<kFlags>(source, builder);
    if (result.Code() == rapidjson::kParseErrorNumberTooBig && source.ReplaceNumbers()) {
        return Parse(source);
    }
    if (result.IsError()) {
        ThrowError(source, result.Code(), result.Offset());
    }
    if (source.Tell() != source.Text().size()) {
        source.ThrowScan("Unexpected character",
                         source.Tell());  // a NUL, which ends the text for RapidJSON
    }
    return builder.TakeRoot();
}

}  // namespace

UnknownElement ReadDocument(std::istream& stream, const char* firstCharacters) {
    Source source(stream);
    const std::size_t first = source.Text().find_first_not_of(" \t\r\n");
    if (firstCharacters != nullptr && first != std::string_view::npos &&
        Source::StartsToken(source.Text()[first]) &&
        std::strchr(firstCharacters, source.Text()[first]) == nullptr) {
        source.ThrowParse("The document is of another type", first, source.FindTokenEnd(first));
    }
    return Parse(source);
}

}  // namespace json::detail
