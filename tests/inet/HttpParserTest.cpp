// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>
#include <malloc.h>

#include <istream>
#include <sstream>
#include <string>

#include <zarip/inet/HttpFormatter.h>
#include <zarip/inet/HttpParser.h>
#include <zarip/inet/HttpRequest.h>
#include <zarip/inet/HttpResponse.h>
#include <zarip/inet/ParserException.h>

#include "inet/Wire.h"

namespace zarip::inet {
namespace {

using namespace std::string_literals;

std::string Text(const std::string* value) {
    return value != nullptr ? *value : "-";
}

/// The result of reading a message, and what reading has thrown.
template <class Message>
struct Parsed {
    explicit Parsed(const std::string& text, Wire::End end = Wire::kCloses) : wire(text, end), stream(&wire) {
        error = ParserErrorOf([&] { stream >> message; });
    }

    Wire wire;
    std::iostream stream;
    Message message;
    std::string error;
};
using Request = Parsed<HttpRequest>;
using Response = Parsed<HttpResponse>;

std::string Repeat(const std::string& text, int count) {
    std::string all;
    for (int i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

TEST(HttpParserTest, ReadsARequestLine) {
    struct Row {
        const char *line, *method, *path, *query, *x;
    };
    const Row rows[] = {
        {"GET /a%20b?x=1&y=2#frag HTTP/1.1\r\n\r\n", "GET", "/a b", "x=1&y=2", "1"},
        {"get / HTTP/1.1\n\n", "GET", "/", "", "-"},
        {"  BREW   *   HTTP/1.1  \r\n\r\n", "BREW", "*", "", "-"},
        {"GET /p#f?x=1 HTTP/1.1\r\n\r\n", "GET", "/p", "", "-"},
        {"GET /p?#x=1 HTTP/1.1\r\n\r\n", "GET", "/p", "", "-"},
        {"GET /p??x=a?b HTTP/1.1\r\n\r\n", "GET", "/p", "x=a?b", "a?b"},
        {"GET ?x=%2b+ HTTP/1.1", "GET", "", "x=%2b+", "+ "},
        {"GET /+/..%2f%00.jpg?X=&x=2; HTTP/1.1\r\n\r\n", "GET", "/+/../", "X=&x=2;", "2"},
    };
    for (const Row& row : rows) {
        const Request request(row.line);
        EXPECT_EQ(request.error, "no exception") << row.line;
        EXPECT_EQ(request.message.GetMethodName(), row.method) << row.line;
        EXPECT_EQ(request.message.GetPath(), row.path) << row.line;
        EXPECT_EQ(request.message.GetQueryString(), row.query) << row.line;
        EXPECT_EQ(Text(request.message.GetQueryParameter("x")), row.x) << row.line;
        EXPECT_EQ(request.message.GetProtocol(), "HTTP/1.1") << row.line;
    }
}

TEST(HttpParserTest, RefusesOtherRequestLines) {
    const std::pair<std::string, const char*> rows[] = {
        {"", "BadRequest"},
        {"\r\n", "BadRequest"},
        {"GET /\r\n\r\n", "BadRequest"},
        {"GET / HTTP/1.1 extra\r\n\r\n", "BadRequest"},
        {"GET\t/\tHTTP/1.1\r\n\r\n", "BadRequest"},
        {"GET / HTTP/1.1\0\r\n\r\n"s, "BadRequest"},
        {"GET /a\0 / HTTP/1.1\r\n\r\n"s, "BadRequest"},
        {"\0\r\n\r\n"s, "BadRequest"},
        {"GET / " + std::string(65, 'v') + "\r\n\r\n", "proto exceeds max length"},
        {"GET /%4 HTTP/1.1\r\n\r\n", "the text url_decode() failed"},
        {"GET /?a=%zz HTTP/1.1\r\n\r\n", "the text url_decode() failed"},
        {"GET /?a HTTP/1.1\r\n\r\n", "BadRequest"},
        {"GET\x1B / HTTP/1.1\r\n\r\n", "BadRequest"},
        {"GET /\t HTTP/1.1\r\n\r\n", "BadRequest"},
        {"GET / HTTP/1.1\x7F\r\n\r\n", "BadRequest"},
        {"GET /" + std::string(5000, 'a') + " HTTP/1.1\r\n\r\n", "BadRequest"},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(Request(text).error, expected) << text.substr(0, 40);
    }
    EXPECT_EQ(Request("GET / " + std::string(64, 'v') + "\r\n\r\n").error, "no exception");
}

TEST(HttpParserTest, AnOverlongFirstLineIsCutAndEndsTheMessage) {
    const Request request("GET / HTTP/1.1" + std::string(5000, ' ') + "x\r\nA: b\r\n\r\n");
    EXPECT_EQ(request.error, "no exception");
    EXPECT_EQ(request.message.GetProtocol(), "HTTP/1.1");
    EXPECT_EQ(request.message.GetHeader("A"), nullptr);
}

TEST(HttpParserTest, ReadsHeaders) {
    const Request request(
        "GET / HTTP/1.1\r\n"
        "Host: cam:80\r\n"
        "::Odd:   a: b \t\r\n"
        "Tab:\tv\n"
        "Alone\r\n"
        "Empty:\r\n"
        "cookie: a=1; b=2\r\n"
        "Cookie: b=; c=3\r\n"
        "\r\n"
        "Behind: x\r\n");
    EXPECT_EQ(request.error, "no exception");
    const HttpRequest& message = request.message;
    EXPECT_EQ(Text(message.GetHeader("host")), "cam:80");
    EXPECT_EQ(Text(message.GetHeader("odd")), "a: b \t");
    EXPECT_EQ(Text(message.GetHeader("tab")), "\tv");
    EXPECT_EQ(Text(message.GetHeader("alone")), "");
    EXPECT_EQ(Text(message.GetHeader("empty")), "");
    EXPECT_EQ(Text(message.GetHeader("cookie")), "b=; c=3");
    EXPECT_EQ(Text(message.GetHeader("behind")), "-");
    EXPECT_EQ(Text(message.GetCookie("a")) + Text(message.GetCookie("b")) + Text(message.GetCookie("c")),
              "1-3");
    EXPECT_EQ(request.wire.Unread(), "Behind: x\r\n");
}

TEST(HttpParserTest, RefusesOtherHeaders) {
    const std::string begin = "GET / HTTP/1.1\r\n";
    const auto line = [](std::size_t length) { return "n: " + std::string(length - 5, 'v') + "\r\n"; };
    const std::pair<std::string, const char*> rows[] = {
        {"Content-Length : 3\r\n", "BadRequest"},
        {"Content-Length\t: 3\r\n", "BadRequest"},
        {" Content-Length: 3\r\n", "BadRequest"},
        {": Content-Length: 3\r\n", "BadRequest"},
        {"Two words: v\r\n", "no exception"},
        {"No colon \r\n", "no exception"},
        {line(4094), "no exception"},
        {line(4095), "BadRequest"},
        {line(4096), "BadRequest"},
        {line(4097), "BadRequest"},
        {line(9000), "BadRequest"},
        {std::string(256, 'n') + ": v\r\n", "no exception"},
        {std::string(257, 'n') + ": v\r\n", "BadRequest"},
        {":\r\n", "BadRequest"},
        {"::::\r\n", "BadRequest"},
        {"n: a\0b\r\n"s, "BadRequest"},
        {"n\0: v\r\n"s, "BadRequest"},
        {"\0\r\n"s, "BadRequest"},
        {"n: a\rb\r\n", "BadRequest"},
        {"n: v\r\r\n", "BadRequest"},
        {Repeat("n: v\r\n", 1000), "no exception"},
        {Repeat("n: v\r\n", 1001), "BadRequest"},
        {Repeat(line(4094), 256), "no exception"},
        {Repeat(line(4094), 257), "BadRequest"},
    };
    for (const auto& [headers, expected] : rows) {
        EXPECT_EQ(Request(begin + headers + "\r\n").error, expected)
            << headers.substr(0, 20) << headers.size();
        EXPECT_EQ(Response("HTTP/1.1 200 OK\r\n" + headers + "\r\n").error, expected)
            << headers.substr(0, 20) << headers.size();
    }
}

TEST(HttpParserTest, ReadsABodyOfItsLength) {
    struct Row {
        std::string headers, sent, body, error;
    };
    const std::string big(1048576, 'b');
    const Row rows[] = {
        {"Content-Length: 3", "abcdef", "abc", "no exception"},
        {"content-length:3", "a\0b"s, "a\0b"s, "no exception"},
        {"Content-Length: 3\r\nContent-Length: 2", "abc", "ab", "no exception"},  // the last one counts
        {"Content-Length: 2 apples", "abc", "ab", "no exception"},
        {"Content-Length: 2, 3", "abc", "ab", "no exception"},
        {"Content-Length: 10", "abc", "abc", "no exception"},  // ends early and is accepted
        {"Content-Length: 0", "abc", "", "no exception"},
        {"X: y", "abc", "", "no exception"},
        {"Content-Length: 1048576", big + "c", big, "no exception"},
        {"Content-Length: 1048577", big + "c", "", "body exceeds max length"},
        {"Content-Length: 1048577", big, big, "no exception"},
        // No memory is reserved for these lengths, and they do not overflow 32 bits.
        {"Content-Length: 4294967297", "abc", "abc", "no exception"},
        {"Content-Length: 18446744073709551615", "abc", "abc", "no exception"},
        {"Content-Length: 18446744073709551617", "abc", "abc", "no exception"},
        {"Content-Length: " + std::string(4000, '9'), big + "c", "", "body exceeds max length"},
        {"Content-Length: many", "abc", "", "BadRequest"},
        {"Content-Length:", "abc", "", "BadRequest"},
        {"Content-Length: -1", "abc", "", "BadRequest"},
        {"Content-Length: +1", "abc", "", "BadRequest"},
        {"Content-Length: \t1", "abc", "", "BadRequest"},
        {"Transfer-Encoding: chunked", "1\r\na\r\n0\r\n\r\n", "", "BadRequest"},
        {"transfer-ENCODING:", "", "", "BadRequest"},
        {" Transfer-Encoding\t : identity\r\nContent-Length: 1", "a", "", "BadRequest"},
    };
    for (const Row& row : rows) {
        const Request request("PUT / HTTP/1.1\r\n" + row.headers + "\r\n\r\n" + row.sent);
        EXPECT_EQ(request.error, row.error) << row.headers.substr(0, 60);
        EXPECT_EQ(std::string(request.message.GetBody(), request.message.GetBodyLength()), row.body)
            << row.headers.substr(0, 60);
    }
}

TEST(HttpParserTest, TakesNoMoreOfTheStreamThanTheMessage) {
    // A parser that read more than this would wait for a peer that waits for the answer.
    for (const char* text :
         {"GET / HTTP/1.1\r\nA: b\r\n\r\n", "PUT / HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc"}) {
        EXPECT_EQ(Request(text, Wire::kBreaks).error, "no exception") << text;
    }
}

TEST(HttpParserTest, AResponseThatBreaksIsABadRequest) {  // requests: see the dispatcher
    for (const char* text :
         {"", "HTTP/1.1 200 OK\r\n", "HTTP/1.1 200 OK\r\n\r\n", "HTTP/1.1 200 OK\r\n\r\nabc"}) {
        EXPECT_EQ(Response(text, Wire::kBreaks).error, "BadRequest") << text;
    }
}

TEST(HttpParserTest, AFormOfExactlyItsTypeBecomesParameters) {
    const std::string exact = "application/x-www-form-urlencoded";
    struct Row {
        std::string method, type, parameter;
    };
    const Row rows[] = {
        {"POST", exact, "1 +\xC3\xA4"},
        {"post", exact, "1 +\xC3\xA4"},
        {"PUT", exact, "-"},
        {"POST", exact + "; charset=UTF-8", "-"},
        {"POST", "Application/x-www-form-urlencoded", "-"},
        {"POST", "x\r\ncontent-TYPE: " + exact, "1 +\xC3\xA4"},
    };
    const std::string body = "A%62c=1+%2B%c3%A4&d=";
    for (const Row& row : rows) {
        const Request request(row.method + " /?ABC=q HTTP/1.1\r\nContent-Type: " + row.type +
                              "\r\nContent-Length: 20\r\n\r\n" + body);
        EXPECT_EQ(request.error, "no exception");
        EXPECT_EQ(Text(request.message.GetFormParameter("abc")), row.parameter) << row.method << row.type;
        EXPECT_EQ(Text(request.message.GetQueryParameter("abc")), "q");
        EXPECT_EQ(request.message.GetBody(), body);
    }
}

TEST(HttpParserTest, ReadsPairsOfAQuery) {
    struct Row {
        std::string query, error, a, b;
    };
    const Row rows[] = {
        {"", "no exception", "-", "-"},
        {"a=1;b=2", "no exception", "1", "2"},
        {"a=1&b=2&", "no exception", "1", "2"},
        {"a=1&&b=2", "BadRequest", "1", "-"},  // those before a wrong pair stay
        {"&a=1", "BadRequest", "-", "-"},
        {"a=1&b", "BadRequest", "1", "-"},
        {"a==2=&a=3;b=", "no exception", "3", ""},
        {"%41=%26+%3b", "no exception", "& ;", "-"},
        {"a=x%00y&b=x\0y"s, "no exception", "x", "x"},
        {"b=1&a=%", "the text url_decode() failed", "-", "1"},
    };
    for (const Row& row : rows) {
        for (const bool isForm : {false, true}) {
            HttpRequest request;
            EXPECT_EQ(ParserErrorOf([&] { HttpParser::ParseQuery(request, row.query, isForm); }), row.error)
                << row.query;
            EXPECT_EQ(Text(isForm ? request.GetFormParameter("A") : request.GetQueryParameter("A")), row.a)
                << row.query;
            EXPECT_EQ(Text(isForm ? request.GetFormParameter("B") : request.GetQueryParameter("B")), row.b)
                << row.query;
            EXPECT_EQ(isForm ? request.GetQueryParameter("A") : request.GetFormParameter("A"), nullptr);
        }
    }
}

TEST(HttpParserTest, TheWorstRequestCostsLessThan32MiB) {
    const auto held = [] {
        const struct mallinfo2 info = ::mallinfo2();
        return info.uordblks + info.hblkhd;
    };
    // Makes as many entries as fit, with short and different names of cookies or parameters.
    const auto name = [](unsigned int number) {
        std::string text;
        for (; text.empty() || number > 0; number /= 161) {  // no separator, no lower case
            text += static_cast<char>(number % 161 + (number % 161 < 33 ? 0x40 : 0x80 - 33));
        }
        return text;
    };
    std::string text =
        "POST / HTTP/1.1\r\nContent-Type: application/x-www-form-urlencoded\r\nContent-Length: 1048576\r\n";
    for (unsigned int i = 0; i < 9990;) {
        text += "Cookie: ";
        for (const unsigned int end = i + 666; i < end; ++i) {
            text += name(i) + "=1;";
        }
        text += "\r\n";
    }
    const std::size_t end = text.size() + 900000;
    for (int i = 0; text.size() < end; ++i) {
        text += "n" + std::to_string(i) + ":" + std::string(950, 'v') + "\r\n";
    }
    text += "\r\n";
    const std::size_t body = text.size();
    for (unsigned int i = 0; i < 10'000; ++i) {
        text += name(i) + "=" + std::string(i < 9'999 ? 95 : 0, 'v') + "&";
    }
    text.pop_back();
    text.resize(body + 1048576, 'v');
    std::istringstream stream(text);
    const std::size_t before = held();
    HttpRequest request;
    EXPECT_EQ(ParserErrorOf([&] { stream >> request; }), "no exception");
    EXPECT_EQ(request.GetBodyLength(), 1048576U);
    EXPECT_NE(request.GetFormParameter(name(9'999)), nullptr);
    EXPECT_EQ(Text(request.GetCookie(name(9989))), "1");
    if (before != 0) {  // sanitizers do not count
        EXPECT_LT(held() - before, 32U * 1024 * 1024);
    }
}

TEST(HttpParserTest, AFormOrQueryHasAtMost10000Parameters) {
    for (const bool isForm : {false, true}) {
        HttpRequest request;
        const std::string most = Repeat("a=1&", 10'000);
        EXPECT_EQ(ParserErrorOf([&] { HttpParser::ParseQuery(request, most, isForm); }), "no exception");
        EXPECT_EQ(ParserErrorOf([&] { HttpParser::ParseQuery(request, most + "b=1", isForm); }),
                  "BadRequest");
        EXPECT_EQ(request.GetFormOrQueryParameter("b"), nullptr);
    }
}

TEST(HttpParserTest, ParsesAHeadAloneAndLeavesABodyOfAnyLengthInTheStream) {
    std::istringstream stream("PUT /firmware HTTP/1.1\r\nContent-Length: 4294967296\r\n\r\nbegin");
    HttpRequest request;
    EXPECT_EQ(HttpParser().ParseHead(stream, request), 4'294'967'296ULL);
    EXPECT_EQ(request.GetPath(), "/firmware");
    EXPECT_EQ(request.GetBodyLength(), 0U);
    std::string rest;
    stream >> rest;
    EXPECT_EQ(rest, "begin");
}

TEST(HttpParserTest, ReadsAStatusLine) {
    struct Row {
        std::string line, error, protocol;
        int code;
    };
    const std::string digits(32, '0');
    const Row rows[] = {
        {"HTTP/1.1 404 Not Found", "no exception", "HTTP/1.1", 404},
        {" HTTP/1.1   200", "no exception", "HTTP/1.1", 200},
        {"ICY abc def ghi", "no exception", "ICY", 0},
        {"P 12ab", "no exception", "P", 12},
        {"P " + digits, "no exception", "P", 0},
        {"P " + digits + "0", "BadRequest", "", 503},
        {std::string(64, 'p') + " 1", "no exception", std::string(64, 'p'), 1},
        {std::string(65, 'p') + " 1", "BadRequest", "", 503},
        {"P", "BadRequest", "", 503},
        {"", "BadRequest", "", 503},
        {"P 2\0"s, "BadRequest", "", 503},
    };
    for (const Row& row : rows) {
        const Response response(row.line + "\r\n\r\n");
        EXPECT_EQ(response.error, row.error) << row.line;
        EXPECT_EQ(response.message.GetProtocol(), row.protocol) << row.line;
        EXPECT_EQ(response.message.GetCode(), row.code) << row.line;
    }
}

TEST(HttpParserTest, ReadsTheBodyOfAResponseToTheEnd) {
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 999\r\nContent-Type: a\r\n\r\n";
    for (const std::size_t size : {0UL, 2UL, 4095UL, 4096UL, 4097UL, 1044479UL}) {
        const Response response(head + std::string(size, '\0'));
        EXPECT_EQ(response.error, "no exception") << size;
        EXPECT_EQ(response.message.GetBodyLength(), size);
        EXPECT_EQ(Text(response.message.GetHeader("Content-Length")), std::to_string(size));
    }
    for (const std::size_t size : {1044480UL, 1048576UL, 3000000UL}) {
        EXPECT_EQ(Response(head + std::string(size, 'x')).error, "too much data") << size;
    }
    const Response empty("HTTP/1.1 204 No Content");
    EXPECT_EQ(empty.error, "no exception");
    EXPECT_EQ(Text(empty.message.GetHeader("content-length")), "0");
}

TEST(HttpParserTest, LinesMayBeReadInAnotherWay) {
    struct Parser : HttpParser {
        void ParseRequestLine(char* line, HttpRequestBase& request) const override { request.SetPath(line); }
        void ParseHeader(char* line, char*& name, char*& value) const override { name = value = line; }
    };
    Wire wire("any thing\r\nx\r\n\r\n");
    std::iostream stream(&wire);
    HttpRequest request;
    Parser().Parse(stream, request);
    EXPECT_EQ(request.GetPath(), "any thing");
    EXPECT_EQ(Text(request.GetHeader("X")), "x");
}

TEST(ParserExceptionTest, CopiesKeepEverything) {
    ParserException exception("text");
    EXPECT_EQ(exception.GetFile(), "");
    EXPECT_EQ(exception.GetLine(), 0U);
    exception.SetLocation("file", 7);
    const ParserException copy(exception);
    ParserException assigned("other");
    assigned = copy;
    EXPECT_EQ(assigned.GetFile(), "file");
    EXPECT_EQ(assigned.GetLine(), 7U);
    EXPECT_EQ(assigned.ToString(), "text");
    EXPECT_STREQ(static_cast<const std::exception&>(assigned).what(), "text");
}

TEST(HttpFormatterTest, WritesResponsesInTwoPieces) {
    HttpResponse response;
    response.SetProtocol("HTTP/1.1");
    response.SetCode(200);
    response.SetHeader("Content-Type", "text/plain");
    response.SetHeader("age", "1");
    response.SetBody("hi");
    Wire wire("");
    std::iostream stream(&wire);
    EXPECT_EQ(&(stream << response), &stream);
    EXPECT_EQ(wire.Output(),
              "HTTP/1.1 200 OK\r\nage: 1\r\nContent-Length: 2\r\nContent-Type: text/plain\r\n\r\nhi");
    EXPECT_EQ(wire.Writes(), 2);

    HttpResponse bare;
    Wire second("");
    std::iostream other(&second);
    other << bare;
    EXPECT_EQ(second.Output(), " 503 Service Unavailable\r\n\r\n");
    EXPECT_EQ(second.Writes(), 1);
}

TEST(HttpFormatterTest, TheTargetIsThePathAlone) {
    HttpRequest request;
    request.SetMethodName("post");
    request.SetPath("/x");
    request.SetQueryString("a=1");
    request.SetBody("a\0b"s);
    Wire wire("");
    std::iostream stream(&wire);
    EXPECT_EQ(&(stream << request), &stream);
    EXPECT_EQ(wire.Output(), "POST /x \r\n\r\na\0b"s);
}

}  // namespace
}  // namespace zarip::inet
