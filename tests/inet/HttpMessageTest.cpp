// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include <zarip/inet/HttpFormatter.h>
#include <zarip/inet/HttpRequest.h>
#include <zarip/inet/HttpResponse.h>
#include <zarip/inet/Url.h>

#include "inet/Wire.h"

namespace zarip::inet {
namespace {

using namespace std::string_literals;

/// Returns the value, or "-" for null.
std::string Text(const std::string* value) {
    return value != nullptr ? *value : "-";
}

std::string HeadersOf(const HttpBase& message) {
    std::string text;
    HttpBase::const_iterator header;
    HttpBase::const_iterator end;
    for (message.GetHeaders(header, end); header != end; ++header) {
        text += header->first + "=" + header->second + "|";
    }
    return text;
}

TEST(HttpMessageTest, HeaderNamesHaveNoCase) {
    HttpRequest request;
    request.SetHeader("Content-Type", "a");
    request.SetHeader("x-b", "1");
    request.SetHeader("X-a", "2");
    request.SetHeader("content-type", "b");
    request.SetHeader("x_a", "3");  // compared in lower case, as in strcasecmp: '_' is before the letters
    request.SetHeader("X", "");
    EXPECT_EQ(HeadersOf(request), "Content-Type=b|X=|X-a=2|x-b=1|x_a=3|");
    EXPECT_EQ(Text(request.GetHeader("CONTENT-TYPE")), "b");
    EXPECT_EQ(request.GetHeader("Content"), nullptr);
    request.RemoveHeader("cOnTeNt-TyPe");
    request.RemoveHeader("absent");
    EXPECT_EQ(HeadersOf(request), "X=|X-a=2|x-b=1|x_a=3|");
}

TEST(HttpMessageTest, LimitsRefuseAndLeaveTheMessage) {
    HttpResponse response;
    response.SetProtocol(std::string(64, 'p'));
    EXPECT_EQ(ParserErrorOf([&] { response.SetProtocol(std::string(65, 'q')); }), "proto exceeds max length");
    EXPECT_EQ(response.GetProtocol(), std::string(64, 'p'));

    response.SetHeader(std::string(256, 'n'), std::string(4096, 'v'));
    EXPECT_EQ(ParserErrorOf([&] { response.SetHeader(std::string(257, 'n'), "v"); }), "BadRequest");
    EXPECT_EQ(ParserErrorOf([&] { response.SetHeader(std::string(256, 'n'), std::string(4097, 'w')); }),
              "BadRequest");
    EXPECT_EQ(HeadersOf(response), std::string(256, 'n') + "=" + std::string(4096, 'v') + "|");

    response.SetBody(std::string(1048576, 'b'));
    EXPECT_EQ(ParserErrorOf([&] { response.SetBody(std::string(1048577, 'c')); }), "body exceeds max length");
    EXPECT_EQ(ParserErrorOf([&] { response.SetBody(std::string(1048577, 'c').c_str()); }),
              "body exceeds max length");
    EXPECT_EQ(ParserErrorOf([&] { response.SetBody("", 1048577U); }), "body exceeds max length");
    EXPECT_EQ(response.GetBodyLength(), 1048576U);
    EXPECT_STREQ(response.GetBody(), std::string(1048576, 'b').c_str());
    EXPECT_EQ(Text(response.GetHeader("Content-Length")), "1048576");
}

TEST(HttpMessageTest, AHeaderCannotHoldTheNextOne) {
    HttpRequest request;
    for (const std::string& bad :
         {"a\r"s, "\na"s, "a\0b"s, "a\r\nSet-Cookie: b"s, std::string(40, 'x') + "\n"}) {
        EXPECT_EQ(ParserErrorOf([&] { request.SetHeader(bad, "v"); }), "BadRequest");
        EXPECT_EQ(ParserErrorOf([&] { request.SetHeader("Location", bad); }), "BadRequest");
        EXPECT_EQ(ParserErrorOf([&] { request.SetHeader("Cookie", "a=b" + bad); }), "BadRequest");
    }
    EXPECT_EQ(HeadersOf(request), "");
    EXPECT_EQ(request.GetCookie("a"), nullptr);
    request.SetHeader("X", "\x01\t\x7F\xFF");
    EXPECT_EQ(HeadersOf(request), "X=\x01\t\x7F\xFF|");
}

TEST(HttpMessageTest, ABodyIsBytesAndAText) {
    HttpRequest request;
    EXPECT_EQ(request.GetBodyLength(), 0U);
    EXPECT_STREQ(request.GetBody(), "");
    request.SetBody("a\0b"s);
    EXPECT_EQ(std::string(request.GetBody(), request.GetBodyLength() + 1), "a\0b\0"s);
    EXPECT_EQ(request.GetHeader("Content-Length"), nullptr);  // responses only
    request.SetBody("text");
    request.SetBody(request.GetBody() + 1, 2);  // part of itself
    EXPECT_STREQ(request.GetBody(), "ex");
    request.SetBody(nullptr, 0U);
    EXPECT_STREQ(request.GetBody(), "");
}

TEST(HttpMessageTest, CookiesAreReadFromTheirHeader) {
    struct Row {
        const char *header, *a, *b, *c;
    };
    const Row rows[] = {
        {"a=1; b=; c=3", "1", "-", "3"},  {"", "-", "old", "-"},
        {";;;", "-", "old", "-"},         {"a=x=y;c= v ", "x=y", "old", " v "},
        {" \t a=%20", "%20", "old", "-"}, {"a;=1;b=2", "-", "2", "-"},
        {"a\t=1;A=2", "-", "old", "-"},   {"a=1;a=2;b", "2", "old", "-"},
        {"b=\"q;c=\"", "-", "\"q", "\""},
    };
    for (const Row& row : rows) {
        HttpRequest request;
        request.SetCookie("b", "old");
        request.SetHeader("cOOKIE", row.header);
        EXPECT_EQ(Text(request.GetCookie("a")), row.a) << row.header;
        EXPECT_EQ(Text(request.GetCookie("b")), row.b) << row.header;
        EXPECT_EQ(Text(request.GetCookie("c")), row.c) << row.header;
    }
}

TEST(HttpMessageTest, CookiesOfSeveralHeadersAddUpToALimit) {
    HttpRequest request;
    const auto cookies = [](int first, int count) {
        std::string text;
        for (int i = first; i < first + count; ++i) {
            text += std::to_string(i) + "=v" + (i + 1 < first + count ? ";" : "");
        }
        return text;
    };
    for (int i = 0; i < 10000; i += 500) {
        request.SetHeader("Cookie", cookies(i, 500));
    }
    EXPECT_EQ(ParserErrorOf([&] { request.SetHeader("Cookie", "one=more"); }), "BadRequest");
    EXPECT_EQ(request.GetCookie("one"), nullptr);
    EXPECT_EQ(Text(request.GetCookie("0")), "v");
    EXPECT_EQ(Text(request.GetCookie("9999")), "v");
    EXPECT_EQ(*request.GetHeader("Cookie"), cookies(9500, 500));
}

TEST(HttpMessageTest, ParameterNamesHaveNoCase) {
    HttpRequest request;
    request.SetQueryParameter("iD", "query");
    EXPECT_EQ(Text(request.GetQueryParameter("id")), "query");
    EXPECT_EQ(Text(request.GetFormParameter("id")), "-");
    EXPECT_EQ(Text(request.GetFormOrQueryParameter("Id")), "query");
    request.SetFormParameter("Id", "");
    EXPECT_EQ(Text(request.GetFormOrQueryParameter("ID")), "");
    request.SetFormParameter("ID", "form");
    EXPECT_EQ(Text(request.GetFormOrQueryParameter("id")), "form");
    request.RemoveQueryParameter("id");
    EXPECT_EQ(Text(request.GetQueryParameter("ID")), "-");
    request.RemoveFormParameter("iD");
    EXPECT_EQ(Text(request.GetFormOrQueryParameter("ID")), "-");
}

TEST(HttpMessageTest, AUrlSetsPathQueryAndHost) {
    HttpRequest request;
    request.SetUrl(Url("http://u:p@cam:8080/a%20b+?x=1+%2B&y=%41"));
    EXPECT_EQ(request.GetPath(), "/a b+");
    EXPECT_EQ(request.GetQueryString(), "x=1+%2B&y=%41");
    EXPECT_EQ(Text(request.GetQueryParameter("X")), "1 +");
    EXPECT_EQ(Text(request.GetQueryParameter("Y")), "A");
    EXPECT_EQ(HeadersOf(request), "HOST=cam:8080|");
    request.SetUrl(Url("http://[::1]"));
    EXPECT_EQ(HeadersOf(request), "HOST=[::1]|");
    EXPECT_EQ(request.GetPath() + request.GetQueryString(), "");
    EXPECT_EQ(Text(request.GetQueryParameter("X")), "1 +");  // stays
    EXPECT_EQ(ParserErrorOf([&] { request.SetUrl(Url("http://cam/%4?a=b")); }),
              "the text url_decode() failed");
    EXPECT_EQ(ParserErrorOf([&] { request.SetUrl(Url("http://cam/p?a=b&c")); }), "BadRequest");
    EXPECT_EQ(Text(request.GetQueryParameter("a")), "b");
}

TEST(HttpMessageTest, MethodsHaveNamesAndNumbers) {
    struct Row {
        const char *name, *lower;
        HttpRequest::Method method;
        unsigned int number;
        const char* code;
    };
    const Row rows[] = {
        {"GET", "get", HttpRequest::HGET, 0x54454748, "HGET"},
        {"POST", "post", HttpRequest::POST, 0x54534F50, "POST"},
        {"HEAD", "head", HttpRequest::HEAD, 0x44414548, "HEAD"},
        {"PUT", "pUt", HttpRequest::HPUT, 0x54555048, "HPUT"},
        {"TRACE", "trace", HttpRequest::TRCE, 0x45435254, "TRCE"},
        {"DELETE", "delete", HttpRequest::DELE, 0x454C4544, "DELE"},
        {"OPTIONS", "options", HttpRequest::OPTS, 0x5354504F, "OPTS"},
        {"CONNECT", "connect", HttpRequest::CONN, 0x4E4E4F43, "CONN"},
        {"PATCH", "patch", HttpRequest::PATC, 0x43544150, "PATC"},
        {"SUBSCRIBE", "subscribe", HttpRequest::SUBS, 0x53425553, "SUBS"},
        {"UNSUBSCRIBE", "unsubscribe", HttpRequest::UNSU, 0x55534E55, "UNSU"},
    };
    HttpRequest request;
    for (const Row& row : rows) {
        request.SetMethodName(row.lower);
        EXPECT_EQ(request.GetMethod(), row.number) << row.name;
        EXPECT_EQ(request.GetMethodName(), row.name);
        EXPECT_EQ(HttpRequest::GetMethodByName(row.name), row.method);
        EXPECT_EQ(HttpRequest::GetNameForMethod(row.method), row.name);
        std::string code;
        for (unsigned int rest = row.number; rest != 0; rest >>= 8U) {
            code += static_cast<char>(rest & 0xFFU);
        }
        EXPECT_EQ(code, row.code);
    }
    EXPECT_EQ(HttpRequest::UNKW, 0x574B4E55U);
}

TEST(HttpMessageTest, AnUnknownMethodKeepsItsText) {
    HttpRequest request;
    EXPECT_EQ(request.GetMethod(), HttpRequest::UNKW);
    EXPECT_EQ(request.GetMethodName(), "");
    request.SetMethodName("m-Search");
    EXPECT_EQ(request.GetMethod(), HttpRequest::UNKW);
    EXPECT_EQ(request.GetMethodName(), "m-Search");
    request.SetMethodName("get");
    EXPECT_EQ(request.GetMethodName(), "GET");
    request.SetMethod(HttpRequest::UNKW);
    EXPECT_EQ(request.GetMethodName(), "m-Search");  // a known name does not change it
    request.SetMethod(7);
    EXPECT_EQ(request.GetMethod(), 7U);
    EXPECT_EQ(request.GetMethodName(), "UNKNOWN");
    EXPECT_EQ(HttpRequest::GetNameForMethod(HttpRequest::UNKW), "UNKNOWN");
    EXPECT_EQ(HttpRequest::GetMethodByName("GETS"), HttpRequest::UNKW);
}

TEST(HttpMessageTest, ANewResponseIsUnavailable) {
    HttpResponse response;
    EXPECT_EQ(response.GetCode(), 503);
    EXPECT_EQ(response.GetCodeText(), "Service Unavailable");
    EXPECT_EQ(HeadersOf(response), "");
    EXPECT_EQ(response.GetProtocol(), "");
}

TEST(HttpMessageTest, CodesHaveTexts) {
    const std::vector<std::pair<int, std::vector<const char*>>> blocks = {
        {100, {"Continue", "Switching Protocols", "Unknown"}},
        {200,
         {"OK", "Created", "Accepted", "Non-Authoritative Information", "No Content", "Reset Content",
          "Partial Content", "Unknown"}},
        {299,
         {"Unknown", "Multiple Choices", "Moved Permanently", "Found", "See Other", "Not Modified",
          "Use Proxy", "Unknown", "Temporary Redirect", "Unknown"}},
        {399,
         {"Unknown",
          "Bad Request",
          "Unauthorized",
          "Payment Required",
          "Forbidden",
          "Not Found",
          "Method Not Allowed",
          "Not Acceptable",
          "Proxy Authentication Required",
          "Request Timeout",
          "Conflict",
          "Gone",
          "Length Required",
          "Precondition Failed",
          "Request Entity Too Large",
          "Request-URI Too Long",
          "Unsupported Media Type",
          "Requested Range Not Satisfiable",
          "Expectation Failed",
          "Unknown"}},
        {499,
         {"Unknown", "Internal Server Error", "Not Implemented", "Bad Gateway", "Service Unavailable",
          "Gateway Timeout", "HTTP Version Not Supported", "Unknown"}},
        {-1, {"Unknown", "Unknown"}},
    };
    HttpResponse response;
    for (const auto& [first, texts] : blocks) {
        for (std::size_t i = 0; i < texts.size(); ++i) {
            response.SetCode(first + static_cast<int>(i));
            EXPECT_EQ(response.GetCodeText(), texts[i]) << response.GetCode();
        }
    }
}

TEST(HttpMessageTest, ResponsesCountTheirBody) {
    HttpResponse response;
    response.SetBody("hello");
    EXPECT_EQ(HeadersOf(response), "Content-Length=5|");
    response.SetBody("a\0b"s);
    EXPECT_EQ(HeadersOf(response), "Content-Length=3|");
    response.SetBody("hello", 2);
    EXPECT_EQ(HeadersOf(response), "Content-Length=2|");
    static_cast<HttpBase&>(response).SetBody("");
    EXPECT_EQ(HeadersOf(response), "Content-Length=0|");
}

TEST(HttpMessageTest, AFormattedFirstLineIsOneLine) {
    for (const std::string& end : {"\r"s, "\n"s, "\0"s, "\r\nX: y"s}) {
        HttpRequest requests[3];
        requests[0].SetPath("/a" + end);
        requests[1].SetProtocol("HTTP/1.1" + end);
        requests[2].SetMethodName("GET / HTTP/1.1" + end);
        std::ostringstream out;
        for (const HttpRequest& request : requests) {
            EXPECT_EQ(ParserErrorOf([&] { out << request; }), "BadRequest");
        }
        HttpResponse response;
        response.SetProtocol("HTTP/1.1" + end);
        EXPECT_EQ(ParserErrorOf([&] { out << response; }), "BadRequest");
        EXPECT_EQ(out.str(), "");
    }
}

TEST(HttpMessageTest, CopiesAreDeep) {
    HttpRequest request;
    request.SetMethodName("BREW");
    request.SetProtocol("P");
    request.SetHeader("Cookie", "a=1");
    request.SetBody("body");
    request.SetPath("/p");
    request.SetQueryString("q=1");
    request.SetQueryParameter("q", "1");
    request.SetFormParameter("f", "2");
    request.SetDest({"1.2.3.4", "", 5});
    const HttpRequest copy(request);
    HttpRequest assigned;
    HttpRequestBase& base = assigned;
    base = request;  // assigns only the members of the base
    EXPECT_EQ(assigned.GetMethodName(), "");
    EXPECT_EQ(assigned.GetPath(), "/p");
    assigned = copy;
    request.SetMethodName("PUT");
    request.SetHeader("Cookie", "a=");
    request.SetBody("");
    request.RemoveQueryParameter("q");
    request.RemoveFormParameter("f");
    for (const HttpRequest* message : {&copy, static_cast<const HttpRequest*>(&assigned)}) {
        EXPECT_EQ(message->GetMethodName(), "BREW");
        EXPECT_EQ(message->GetProtocol() + message->GetPath() + message->GetQueryString(), "P/pq=1");
        EXPECT_EQ(HeadersOf(*message), "Cookie=a=1|");
        EXPECT_EQ(Text(message->GetCookie("a")), "1");
        EXPECT_STREQ(message->GetBody(), "body");
        EXPECT_EQ(Text(message->GetQueryParameter("Q")), "1");
        EXPECT_EQ(Text(message->GetFormParameter("F")), "2");
        EXPECT_EQ(message->GetDest().port, 5);
    }
    HttpResponse response;
    response.SetCode(201);
    response.SetBody("x");
    HttpResponse other;
    other = HttpResponse(response);
    response.SetBody("y");
    EXPECT_EQ(other.GetCode(), 201);
    EXPECT_STREQ(other.GetBody(), "x");
}

}  // namespace
}  // namespace zarip::inet
