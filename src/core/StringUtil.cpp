// SPDX-License-Identifier: MIT

#include "zarip/core/StringUtil.h"

#include <fnmatch.h>
#include <libxml/uri.h>
#include <libxml/xmlmemory.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <climits>
#include <istream>
#include <locale>
#include <memory>
#include <string_view>

#include "core/ReadFileBlocks.h"
#include "core/TextStream.h"
#include "core/Trim.h"
#include "zarip/osa/Exception.h"

namespace zarip::core {

namespace {

template <class Output>
void ForEachPiece(std::string_view text, std::string_view delimiters, unsigned int maxParts, Output output) {
    if (maxParts == 0) {
        return;
    }
    for (unsigned int parts = 1; parts < maxParts; ++parts) {
        const std::size_t cut = text.find_first_of(delimiters);
        if (cut == std::string_view::npos) {
            break;
        }
        output(text.substr(0, cut));
        text.remove_prefix(cut + 1);
    }
    output(text);
}

template <class Parts>
std::string JoinParts(const Parts& parts, std::string_view separator) {
    std::string joined;
    bool first = true;
    for (const std::string& part : parts) {
        if (!first) {
            joined += separator;
        }
        first = false;
        joined += part;
    }
    return joined;
}

template <class Find>
void EscapeWith(std::string& text, Find find) {
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        if (const std::string* const replacement = find(c)) {
            escaped += *replacement;
        } else {
            escaped += c;
        }
    }
    text.swap(escaped);
}

template <class Number>
bool ParseWhole(std::string_view text, int base, Number& out) {
    Number value{};
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value, base);
    if (result.ec != std::errc() || result.ptr != end) {
        return false;
    }
    out = value;
    return true;
}

template <class Wide, class Narrow>
bool ParseNarrow(const std::string& text, Wide least, Wide greatest, Narrow& out) {
    Wide value{};
    if (!StringUtil::TryParse(text, value) || value < least || value > greatest) {
        return false;
    }
    out = static_cast<Narrow>(value);
    return true;
}

/// Removes the white space of the "C" locale at both ends.
std::string_view TrimClassic(std::string_view text) {
    constexpr const char* kSpaces = " \t\n\v\f\r";
    const std::size_t first = text.find_first_not_of(kSpaces);
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(kSpaces) - first + 1);
}

/// The result that a stream gives: it fails for a number that is too large, and gives zero for one that is
/// too small.
bool ExtractOutOfRange(std::string_view number, double& out) {
    InputText stream{std::string(number)};
    return static_cast<bool>(stream >> out);
}

}  // namespace

bool StringUtil::StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool StringUtil::EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string StringUtil::Strip(const std::string& text, unsigned int pos, unsigned int length) {
    if (pos > text.size()) {
        throw osa::Exception("StringUtil::Strip: pos out of range");
    }
    return std::string(TrimBeforeZero(std::string_view(text).substr(pos, length)));
}

std::string StringUtil::Strip(const std::string& text, const std::string& begin, const std::string& end) {
    std::size_t from = 0;
    if (!begin.empty()) {
        from = text.find(begin);
        if (from == std::string::npos) {
            return {};
        }
        from += begin.size();
    }
    std::size_t to = text.size();
    if (!end.empty()) {
        to = text.find(end, from);
        if (to == std::string::npos) {
            return {};
        }
    }
    return std::string(Trim(std::string_view(text).substr(from, to - from)));
}

void StringUtil::ToLower(std::string& text) {
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
}

void StringUtil::ToUpper(std::string& text) {
    for (char& c : text) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
}

const char* StringUtil::ToCStr(const std::string& text, const char* /*fallback*/) {
    return text.c_str();
}

void StringUtil::Replace(std::string& text, const std::string& from, const std::string& to) {
    std::size_t found = from.empty() ? std::string::npos : text.find(from);
    if (found == std::string::npos) {
        return;
    }
    std::string replaced;
    std::size_t copied = 0;
    do {
        replaced.append(text, copied, found - copied);
        replaced += to;
        copied = found + from.size();
        found = text.find(from, copied);
    } while (found != std::string::npos);
    replaced.append(text, copied);
    text.swap(replaced);
}

void StringUtil::Escape(std::string& text, const std::map<char, std::string>& table) {
    EscapeWith(text, [&](char c) {
        const auto entry = table.find(c);
        return entry != table.end() ? &entry->second : nullptr;
    });
}

void StringUtil::Escape(std::string& text, char character, const std::string& replacement) {
    EscapeWith(text, [&](char c) { return c == character ? &replacement : nullptr; });
}

void StringUtil::EscapeForXml(std::string& text) {
    static const auto* const table = new std::map<char, std::string>{
        {'"', "&quot;"}, {'&', "&amp;"}, {'\'', "&apos;"}, {'<', "&lt;"}, {'>', "&gt;"},
    };
    Escape(text, *table);
}

void StringUtil::UrlDecode(std::string& text) {
    if (text.size() > INT_MAX) {
        return;
    }
    struct Free {
        void operator()(char* decoded) const { ::xmlFree(decoded); }
    };
    const std::unique_ptr<char, Free> decoded(
        ::xmlURIUnescapeString(text.c_str(), static_cast<int>(text.size()), nullptr));
    if (decoded) {
        text = decoded.get();
    }
}

bool StringUtil::MatchesPattern(const std::string& pattern, const std::string& text) {
    return ::fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
}

void StringUtil::Split(std::vector<std::string>& out, const std::string& text, const std::string& delimiters,
                       unsigned int maxParts) {
    ForEachPiece(text, delimiters, maxParts, [&](std::string_view piece) { out.emplace_back(piece); });
}

std::vector<std::string> StringUtil::Split(const std::string& text, char delimiter) {
    return Split(text, std::string(1, delimiter), kMaxParts);
}

std::vector<std::string> StringUtil::Split(const std::string& text, const std::string& delimiters) {
    return Split(text, delimiters, kMaxParts);
}

std::vector<std::string> StringUtil::Split(const std::string& text, const std::string& delimiters,
                                           unsigned int maxParts) {
    std::vector<std::string> pieces;
    Split(pieces, text, delimiters, maxParts);
    return pieces;
}

void StringUtil::SetSplit(std::set<std::string>& out, const std::string& text, const std::string& delimiters,
                          unsigned int maxParts) {
    ForEachPiece(text, delimiters, maxParts, [&](std::string_view piece) { out.emplace(piece); });
}

std::set<std::string> StringUtil::SetSplit(const std::string& text, char delimiter) {
    return SetSplit(text, std::string(1, delimiter), kMaxParts);
}

std::set<std::string> StringUtil::SetSplit(const std::string& text, const std::string& delimiters) {
    return SetSplit(text, delimiters, kMaxParts);
}

std::set<std::string> StringUtil::SetSplit(const std::string& text, const std::string& delimiters,
                                           unsigned int maxParts) {
    std::set<std::string> pieces;
    SetSplit(pieces, text, delimiters, maxParts);
    return pieces;
}

std::string StringUtil::Join(const std::vector<std::string>& parts, char separator) {
    return JoinParts(parts, std::string_view(&separator, 1));
}

std::string StringUtil::Join(const std::vector<std::string>& parts, const std::string& separator) {
    return JoinParts(parts, separator);
}

std::string StringUtil::Join(const std::set<std::string>& parts, char separator) {
    return JoinParts(parts, std::string_view(&separator, 1));
}

std::string StringUtil::Join(const std::set<std::string>& parts, const std::string& separator) {
    return JoinParts(parts, separator);
}

bool StringUtil::TryParse(const std::string& text, bool& out) {
    std::string word(Trim(text));
    ToLower(word);
    const bool isTrue = word == "true" || word == "1";
    if (!isTrue && word != "false" && word != "0") {
        return false;
    }
    out = isTrue;
    return true;
}

bool StringUtil::TryParse(const std::string& text, int& out) {
    std::string_view number = Trim(text);
    // from_chars knows the minus sign only.
    if (number.size() > 1 && number[0] == '+' && number[1] != '-') {
        number.remove_prefix(1);
    }
    return ParseWhole(number, 10, out);
}

bool StringUtil::TryParse(const std::string& text, signed char& out) {
    return ParseNarrow<int>(text, -128, 127, out);
}

bool StringUtil::TryParse(const std::string& text, unsigned int& out) {
    std::string_view number = Trim(text);
    if (number.size() > 2 && number[0] == '0' && (number[1] == 'x' || number[1] == 'X')) {
        return ParseWhole(number.substr(2), 16, out);
    }
    return ParseWhole(number, 10, out);
}

bool StringUtil::TryParse(const std::string& text, unsigned char& out) {
    return ParseNarrow<unsigned int>(text, 0U, 255U, out);
}

bool StringUtil::TryParse(const std::string& text, double& out) {
    std::string_view number = TrimClassic(text);
    // from_chars accepts the minus sign only. It accepts "inf" and "nan", which a stream does not.
    if (number.size() > 1 && number[0] == '+' && number[1] != '-') {
        number.remove_prefix(1);
    }
    const std::size_t first = !number.empty() && number[0] == '-' ? 1 : 0;
    if (first == number.size() || (number[first] != '.' && (number[first] < '0' || number[first] > '9'))) {
        return false;
    }
    double value = 0;
    const char* const end = number.data() + number.size();
    const auto result = std::from_chars(number.data(), end, value);
    if (result.ptr != end || result.ec == std::errc::invalid_argument) {
        return false;
    }
    if (result.ec == std::errc::result_out_of_range && !ExtractOutOfRange(number, value)) {
        return false;
    }
    out = value;
    return true;
}

void StringUtil::ReadToEnd(std::istream& stream, std::string& out) {
    char block[4096];
    do {
        stream.read(block, sizeof block);
        out.append(block, static_cast<std::size_t>(stream.gcount()));
    } while (stream);
}

std::string StringUtil::ReadTextFile(const std::string& path) {
    std::string content;
    ReadFileBlocks(path, [&](std::string_view block) { content.append(block); });
    return content;
}

}  // namespace zarip::core
