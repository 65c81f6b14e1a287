// SPDX-License-Identifier: MIT

#include "zarip/inet/HttpParser.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <istream>
#include <string_view>
#include <typeinfo>
#include <utility>

#include "cutil/url.h"
#include "inet/BadRequest.h"
#include "inet/MessageReader.h"
#include "inet/MessageText.h"
#include "inet/UrlText.h"
#include "zarip/inet/HttpRequest.h"
#include "zarip/inet/HttpResponseBase.h"
#include "zarip/inet/ParserException.h"

namespace zarip::inet {

namespace {

constexpr std::size_t kBodyStep = MessageReader::kBodyStep;
constexpr std::size_t kMaxResponseBody =
    0x100000 - kBodyStep;  // the last successful read starts below this size
constexpr std::size_t kMaxParameters = 10'000;
constexpr std::size_t kMaxProtocol = 64;
constexpr std::size_t kMaxCode = 32;

/// Removes the next word from the beginning of the text and returns it; empty if there is no word left.
std::string_view TakeToken(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    const std::string_view token = text.substr(0, text.find(' '));
    text.remove_prefix(token.size());
    return token;
}

/// Parses the digits at the beginning; the rest is ignored. A number that is too large becomes the largest.
std::uint64_t ParseContentLength(std::string_view value) {
    std::uint64_t length = 0;
    std::size_t digits = 0;
    for (; digits < value.size() && value[digits] >= '0' && value[digits] <= '9'; ++digits) {
        const auto digit = static_cast<std::uint64_t>(value[digits] - '0');
        length = length > (UINT64_MAX - digit) / 10 ? UINT64_MAX : length * 10 + digit;
    }
    if (digits == 0) {
        ThrowBadRequest();
    }
    return length;
}

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

bool IsTransferEncoding(std::string_view name) {
    constexpr std::string_view kName = "Transfer-Encoding";
    if (name.size() < kName.size()) {
        return false;
    }
    // Other programs may ignore white space around the name.
    const std::size_t begin = std::min(name.find_first_not_of(" \t"), name.size());
    name.remove_prefix(begin);
    return EqualsIgnoringCase(name.substr(0, name.find_last_not_of(" \t") + 1), kName);
}

/// The special meaning of a character in a query.
enum QueryRole : unsigned char { kPlain, kSeparates, kEquals, kSpace, kEscapes, kEnds };

struct QueryRoles {
    constexpr QueryRoles() {
        of[static_cast<unsigned char>('&')] = kSeparates;
        of[static_cast<unsigned char>(';')] = kSeparates;
        of[static_cast<unsigned char>('=')] = kEquals;
        of[static_cast<unsigned char>('+')] = kSpace;
        of[static_cast<unsigned char>('%')] = kEscapes;
        of[0] = kEnds;
    }
    QueryRole of[256] = {};
};
constexpr QueryRoles kQueryRoles;

/// Splits and decodes a query in place, which never makes it longer.
class QueryReader {
public:
    QueryReader(char* begin, std::size_t size) : _next(begin), _end(begin + size) {}

    bool AtEnd() const { return _next == _end; }

    void ReadPair(std::string& name, std::string& value) {
        const char* const begin = _next;
        char* out = _next;
        const char* equals = nullptr;
        bool isDecodable = true;
        bool holdsZero = false;
        for (; _next != _end; ++_next) {
            const char c = *_next;
            const QueryRole role = kQueryRoles.of[static_cast<unsigned char>(c)];
            if (role == kPlain) {
                *out++ = c;
            } else if (role == kSeparates) {
                ++_next;
                break;
            } else if (role == kEquals && equals == nullptr) {
                equals = out;
            } else if (role == kEscapes) {
                const int byte = _end - _next > 2 ? cutil::url_byte(_next[1], _next[2]) : -1;
                if (byte < 0) {
                    isDecodable = false;
                    continue;
                }
                holdsZero = holdsZero || byte == 0;
                *out++ = static_cast<char>(byte);
                _next += 2;
            } else {
                holdsZero = holdsZero || role == kEnds;
                *out++ = role == kSpace ? ' ' : c;
            }
        }
        if (equals == nullptr) {
            ThrowBadRequest();
        }
        if (!isDecodable) {
            ThrowUndecodable();
        }
        name.assign(begin, static_cast<std::size_t>(equals - begin));
        value.assign(equals, static_cast<std::size_t>(out - equals));
        if (holdsZero) {  // a decoded string ends at its first zero byte
            name.resize(std::strlen(name.c_str()));
            value.resize(std::strlen(value.c_str()));
        }
    }

private:
    char* _next;
    char* _end;
};

void ParsePairs(HttpRequestBase& request, char* query, std::size_t size, bool isForm) {
    QueryReader reader(query, size);
    std::string name;
    std::string value;
    for (std::size_t count = 0; !reader.AtEnd(); ++count) {
        if (count == kMaxParameters) {
            ThrowBadRequest();
        }
        reader.ReadPair(name, value);
        if (isForm) {
            request.SetFormParameter(name, value);
        } else {
            request.SetQueryParameter(name, value);
        }
    }
}

}  // namespace

HttpParser::HttpParser() = default;
HttpParser::HttpParser(const HttpParser& other) = default;
HttpParser& HttpParser::operator=(const HttpParser& other) = default;
HttpParser::~HttpParser() = default;

void HttpParser::Parse(std::istream& in, HttpRequestBase& request) const {
    StreamReader reader(in);
    ReadBody(reader, ReadHead(reader, request), request);
}

unsigned long long HttpParser::ParseHead(std::istream& in, HttpRequestBase& request) const {
    StreamReader reader(in);
    return ReadHead(reader, request);
}

unsigned long long HttpParser::ReadHead(MessageReader& reader, HttpRequestBase& request) const {
    ParseRequestLine(reader.ReadFirstLine(), request);
    std::uint64_t length = 0;
    // Derived classes get strings through the functions that they may have overridden. The library's own
    // classes need no copies.
    const bool isPlainParser = typeid(*this) == typeid(HttpParser);
    const bool isPlainRequest = typeid(request) == typeid(HttpRequest);
    std::size_t size = 0;
    while (char* const line = reader.ReadHeader(size)) {
        // `StoreRequestHeader` and `SetHeader` refuse a name or value with a zero byte.
        const Header header = isPlainParser ? SplitHeader({line, size}) : SplitWithParser(line, size);
        if (isPlainRequest) {
            request.StoreRequestHeader(header.name, header.value);
        } else {
            request.SetHeader(std::string(header.name), std::string(header.value));
        }
        if (EqualsIgnoringCase(header.name, "Content-Length")) {
            length = ParseContentLength(header.value);
        } else if (IsTransferEncoding(header.name)) {
            ThrowBadRequest();  // its body would be treated as empty
        }
    }
    return length;
}

void HttpParser::ReadBody(MessageReader& reader, unsigned long long length, HttpRequestBase& request) const {
    if (length == 0 || !reader.IsGood()) {
        return;
    }
    const auto [body, size] = reader.ReadBody(length);
    request.SetBody(body, static_cast<unsigned int>(size));
    if (!EqualsIgnoringCase(request.GetMethodName(), "POST")) {
        return;
    }
    // Deliberate: a type with parameters, such as a charset, does not match, and the handler parses the body
    // itself.
    const std::string* const type = request.GetHeader("Content-Type");
    if (type != nullptr && *type == "application/x-www-form-urlencoded") {
        ParsePairs(request, body, size, true);
    }
}

void HttpParser::Parse(std::istream& in, HttpResponseBase& response) const {
    StreamReader reader(in);
    ParseResponseLine(reader.ReadFirstLine(), response);
    std::size_t size = 0;
    while (char* const line = reader.ReadHeader(size)) {
        const Header header = SplitWithParser(line, size);
        response.SetHeader(std::string(header.name), std::string(header.value));
    }
    std::string body;
    std::size_t held = 0;
    do {
        const std::size_t before = held;
        body.resize(held + kBodyStep);
        held += reader.ReadBytes(body.data() + held, kBodyStep);
        if (before >= kMaxResponseBody) {
            throw ParserException("too much data");
        }
    } while (reader.IsGood());
    response.SetBody(body.data(), static_cast<unsigned int>(held));
}

void HttpParser::ParseRequestLine(char* line, HttpRequestBase& request) const {
    std::string_view rest = line;
    if (std::any_of(rest.begin(), rest.end(), IsControl)) {
        ThrowBadRequest();
    }
    const std::string_view method = TakeToken(rest);
    std::string_view target = TakeToken(rest);
    const std::string_view version = TakeToken(rest);
    if (version.empty() || !TakeToken(rest).empty()) {
        ThrowBadRequest();
    }
    request.SetProtocol(std::string(version));
    request.SetMethodName(std::string(method));
    target = target.substr(0, target.find('#'));
    const std::size_t question = target.find('?');
    std::string path(target.substr(0, question));
    DecodeUrl(path);
    request.SetPath(path);
    if (question != std::string_view::npos) {
        const std::size_t begin = std::min(target.find_first_not_of('?', question), target.size());
        std::string query(target.substr(begin));
        request.SetQueryString(query);
        ParsePairs(request, query.data(), query.size(), false);
    }
}

void HttpParser::ParseResponseLine(char* line, HttpResponseBase& response) const {
    std::string_view rest = line;
    const std::string_view protocol = TakeToken(rest);
    const std::string code(TakeToken(rest));
    if (protocol.size() > kMaxProtocol || code.empty() || code.size() > kMaxCode) {
        ThrowBadRequest();
    }
    response.SetProtocol(std::string(protocol));
    const long number = std::strtol(code.c_str(), nullptr, 10);
    response.SetCode(static_cast<int>(std::clamp<long>(number, INT_MIN, INT_MAX)));
}

HttpParser::Header HttpParser::SplitHeader(std::string_view line) {
    line.remove_prefix(std::min(line.find_first_not_of(':'), line.size()));
    if (line.empty()) {
        ThrowBadRequest();
    }
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
        return {line, line.substr(line.size())};
    }
    if (IsBlank(line.front()) || IsBlank(line[colon - 1])) {
        ThrowBadRequest();  // other programs may ignore the white space
    }
    const std::size_t value = std::min(line.find_first_not_of(' ', colon + 1), line.size());
    return {line.substr(0, colon), line.substr(value)};
}

void HttpParser::ParseHeader(char* line, char*& name, char*& value) const {
    const Header header = SplitHeader(line);
    name = line + (header.name.data() - line);
    value = line + (header.value.data() - line);
    name[header.name.size()] = '\0';
}

/// Splits a line with `ParseHeader`, which a derived class may have overridden.
HttpParser::Header HttpParser::SplitWithParser(char* line, std::size_t size) const {
    if (MessageReader::HoldsZero(line, size)) {
        ThrowBadRequest();
    }
    char* name = nullptr;
    char* value = nullptr;
    ParseHeader(line, name, value);
    return {name, value};
}

void HttpParser::ParseQuery(HttpRequestBase& request, std::string query, bool isForm) {
    ParsePairs(request, query.data(), query.size(), isForm);
}

std::istream& operator>>(std::istream& in, HttpRequestBase& request) {
    HttpParser().Parse(in, request);
    return in;
}

std::istream& operator>>(std::istream& in, HttpResponseBase& response) {
    HttpParser().Parse(in, response);
    return in;
}

}  // namespace zarip::inet
