#include "zarip/inet/HttpParser.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <istream>
#include <string_view>
#include <utility>

#include "cutil/chomp.h"
#include "inet/BadRequest.h"
#include "inet/Text.h"
#include "zarip/inet/HttpRequestBase.h"
#include "zarip/inet/HttpResponseBase.h"
#include "zarip/inet/ParserException.h"
#include "zarip/inet/Url.h"

namespace zarip::inet {

namespace {

constexpr std::size_t kLineBuffer = 4096;
constexpr std::streamsize kMaxHeaderLine = 4094;  // its end included
constexpr std::size_t kMaxHeaders = 1000;
constexpr std::size_t kMaxHeaderText = 0x100000;
constexpr std::uint64_t kMaxBody = 0x100000;
constexpr std::size_t kBodyStep = 4096;
constexpr std::size_t kMaxResponseBody = 0x100000 - kBodyStep;  // the last read that succeeds starts below
constexpr std::size_t kMaxProtocol = 64;
constexpr std::size_t kMaxCode = 32;

/// The lines at the begin of one message.
class Lines {
public:
    explicit Lines(std::istream& in) : _in(in) {}

    /// Deliberate: the first line has no limit of its own, what does not fit into the buffer is cut off. The
    /// stream has failed then, which ends the message behind that line.
    char* ReadFirst() {
        Read();
        return _line;
    }

    /// Null behind the last header.
    char* ReadHeader() {
        const std::streamsize extracted = Read();
        _text += static_cast<std::size_t>(extracted);
        if (extracted > kMaxHeaderLine || _text > kMaxHeaderText) {
            ThrowBadRequest();
        }
        if (_line[0] == '\0') {
            return nullptr;
        }
        if (++_headers > kMaxHeaders) {
            ThrowBadRequest();
        }
        return _line;
    }

private:
    /// The count of characters taken from the stream.
    std::streamsize Read() {
        _in.getline(_line, kLineBuffer);
        if (_in.bad()) {
            ThrowBadRequest();
        }
        const std::streamsize extracted = _in.gcount();
        // A line that ended the stream, or did not fit, had no line feed.
        const std::streamsize length = _in.good() ? extracted - 1 : extracted;
        if (std::strlen(_line) != static_cast<std::size_t>(length)) {
            ThrowBadRequest();  // a zero byte: the rest of the line would go unseen
        }
        cutil::chomp(_line);
        return extracted;
    }

    std::istream& _in;
    char _line[kLineBuffer] = {};
    std::size_t _headers = 0;
    std::size_t _text = 0;
};

/// Takes the next piece between spaces off the begin of the text; empty when there is none.
std::string_view TakeToken(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    const std::string_view token = text.substr(0, text.find(' '));
    text.remove_prefix(token.size());
    return token;
}

/// Digits from the first character on; what follows them is ignored. A number that does not fit is the
/// greatest.
std::uint64_t ParseContentLength(const std::string& value) {
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

bool IsTransferEncoding(std::string_view name) {
    constexpr std::string_view kName = "Transfer-Encoding";
    if (name.size() < kName.size()) {
        return false;
    }
    // Other programs may pass over white space around the name.
    const std::size_t begin = std::min(name.find_first_not_of(" \t"), name.size());
    name.remove_prefix(begin);
    return EqualsIgnoringCase(name.substr(0, name.find_last_not_of(" \t") + 1), kName);
}

/// The bytes that arrive, `length` at the most.
std::string ReadBody(std::istream& in, std::uint64_t length) {
    std::string body;
    std::size_t held = 0;
    const auto wanted = static_cast<std::size_t>(std::min(length, kMaxBody + 1));
    while (held < wanted && in.good()) {
        const std::size_t step = std::min(wanted - held, kBodyStep);
        body.resize(held + step);
        in.read(body.data() + held, static_cast<std::streamsize>(step));
        held += static_cast<std::size_t>(in.gcount());
    }
    if (in.bad()) {
        ThrowBadRequest();
    }
    body.resize(held);
    return body;
}

/// As written in queries and forms.
void Decode(std::string& text) {
    std::replace(text.begin(), text.end(), '+', ' ');
    text = Url::Decode(text);
}

}  // namespace

HttpParser::HttpParser() = default;
HttpParser::HttpParser(const HttpParser& other) = default;
HttpParser& HttpParser::operator=(const HttpParser& other) = default;
HttpParser::~HttpParser() = default;

void HttpParser::Parse(std::istream& in, HttpRequestBase& request) const {
    std::uint64_t length = 0;
    std::string contentType;
    {
        Lines lines(in);
        ParseRequestLine(lines.ReadFirst(), request);
        std::string name;
        std::string value;
        while (char* const line = lines.ReadHeader()) {
            char* nameText = nullptr;
            char* valueText = nullptr;
            ParseHeader(line, nameText, valueText);
            name = nameText;
            value = valueText;
            request.SetHeader(name, value);
            if (EqualsIgnoringCase(name, "Content-Length")) {
                length = ParseContentLength(value);
            } else if (EqualsIgnoringCase(name, "Content-Type")) {
                contentType = value;
            } else if (IsTransferEncoding(name)) {
                ThrowBadRequest();  // its body would be taken for empty
            }
        }
    }
    if (length == 0 || !in.good()) {
        return;
    }
    std::string body = ReadBody(in, length);
    request.SetBody(body);
    // Deliberate: with parameters such as a charset the type is another one, and the handler reads the body
    // for itself.
    if (contentType == "application/x-www-form-urlencoded" &&
        EqualsIgnoringCase(request.GetMethodName(), "POST")) {
        ParseQuery(request, std::move(body), true);
    }
}

void HttpParser::Parse(std::istream& in, HttpResponseBase& response) const {
    {
        Lines lines(in);
        ParseResponseLine(lines.ReadFirst(), response);
        while (char* const line = lines.ReadHeader()) {
            char* name = nullptr;
            char* value = nullptr;
            ParseHeader(line, name, value);
            response.SetHeader(name, value);
        }
    }
    std::string body;
    std::size_t held = 0;
    do {
        const std::size_t before = held;
        body.resize(held + kBodyStep);
        in.read(body.data() + held, static_cast<std::streamsize>(kBodyStep));
        held += static_cast<std::size_t>(in.gcount());
        if (before >= kMaxResponseBody) {
            throw ParserException("too much data");
        }
    } while (in.good());
    if (in.bad()) {
        ThrowBadRequest();
    }
    response.SetBody(body.data(), static_cast<unsigned int>(held));
}

void HttpParser::ParseRequestLine(char* line, HttpRequestBase& request) const {
    std::string_view rest = line;
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
    request.SetPath(Url::Decode(std::string(target.substr(0, question))));
    if (question != std::string_view::npos) {
        const std::size_t begin = std::min(target.find_first_not_of('?', question), target.size());
        const std::string query(target.substr(begin));
        request.SetQueryString(query);
        ParseQuery(request, query, false);
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

void HttpParser::ParseHeader(char* line, char*& name, char*& value) const {
    char* const begin = line + std::strspn(line, ":");
    char* end = begin + std::strcspn(begin, ":");
    if (begin == end) {
        ThrowBadRequest();
    }
    if (*end != '\0') {
        *end++ = '\0';
        end += std::strspn(end, " ");
    }
    name = begin;
    value = end;
}

void HttpParser::ParseQuery(HttpRequestBase& request, std::string query, bool isForm) {
    std::string name;
    std::string value;
    const char* const end = query.data() + query.size();
    const char* next = query.data();
    while (next != end) {
        const char* const begin = next;
        const char* equals = nullptr;
        bool isPlain = true;
        for (; next != end && *next != '&' && *next != ';'; ++next) {
            if (*next == '=') {
                equals = equals != nullptr ? equals : next;
            } else if (*next == '%' || *next == '+' || *next == '\0') {
                isPlain = false;
            }
        }
        if (equals == nullptr) {
            ThrowBadRequest();
        }
        name.assign(begin, equals);
        value.assign(equals + 1, next);
        if (!isPlain) {
            Decode(name);
            Decode(value);
        }
        if (isForm) {
            request.SetFormParameter(name, value);
        } else {
            request.SetQueryParameter(name, value);
        }
        if (next != end) {
            ++next;
        }
    }
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
