// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>

#include <functional>
#include <iostream>
#include <string>
#include <utility>

#include <zarip/inet/HttpDispatcher.h>
#include <zarip/inet/HttpRequest.h>
#include <zarip/inet/HttpResponse.h>
#include <zarip/inet/IHttpHandler.h>

#include "inet/Wire.h"
#include "support/LogCapture.h"

namespace zarip::inet {
namespace {

using namespace std::string_literals;
using test::LogCapture;

class Handler : public IHttpHandler {
public:
    using Body = std::function<void(const HttpRequest&, HttpResponse&)>;

    /// A handler that answers with the text.
    explicit Handler(const std::string& text)
        : _body([text](const HttpRequest&, HttpResponse& response) {
              response.SetCode(200);
              response.SetBody(text);
          }) {}
    explicit Handler(Body body) : _body(std::move(body)) {}

    void HandleRequest(const HttpRequest& request, HttpResponse& response) override {
        ++_calls;
        _body(request, response);
    }
    int Calls() const { return _calls; }

private:
    Body _body;
    int _calls = 0;
};

std::string Serve(HttpDispatcher& dispatcher, const std::string& text, Wire::End end = Wire::kCloses) {
    Wire wire(text, end);
    std::iostream stream(&wire);
    dispatcher.HandleRequest(stream, stream);
    EXPECT_LE(wire.Writes(), 2);
    return wire.Output();
}

/// Returns the body of the answer to a request for the path.
std::string BodyFor(HttpDispatcher& dispatcher, const std::string& path) {
    const std::string answer = Serve(dispatcher, "GET " + path + " HTTP/1.1\r\n\r\n");
    return answer.substr(answer.find("\r\n\r\n") + 4);
}

constexpr char kBadRequest[] = "HTTP/1.1 400 Bad Request\r\n\r\n";

TEST(HttpDispatcherTest, LongerPatternsAreTriedFirst) {
    HttpDispatcher dispatcher;
    Handler api("api");
    Handler any("any");
    Handler x("/x?");
    Handler y("/?y");
    Handler set("[/]a[bc]");
    dispatcher.AddHandler("*", &any);
    dispatcher.AddHandler("/x?", &x);
    dispatcher.AddHandler("/?y", &y);
    dispatcher.AddHandler("/api/*", &api);
    dispatcher.AddHandler("[/]a[bc]", &set);
    EXPECT_EQ(BodyFor(dispatcher, "/api/x/y"), "api");
    EXPECT_EQ(BodyFor(dispatcher, "/index.html"), "any");
    EXPECT_EQ(BodyFor(dispatcher, "/xy"), "/?y");  // matches both: the one with the smaller bytes is used
    EXPECT_EQ(BodyFor(dispatcher, "/xz"), "/x?");
    EXPECT_EQ(BodyFor(dispatcher, "/ac"), "[/]a[bc]");
    EXPECT_EQ(BodyFor(dispatcher, "/api%2Fx?q=1"), "api");

    dispatcher.AddHandler("/api/*", &x);
    EXPECT_EQ(BodyFor(dispatcher, "/api/x"), "/x?");
    dispatcher.RemoveHandler(&x);
    EXPECT_EQ(BodyFor(dispatcher, "/api/x"), "any");
    EXPECT_EQ(BodyFor(dispatcher, "/xz"), "any");
    dispatcher.RemoveHandler(&x);
    dispatcher.RemoveHandler(&any);
    EXPECT_EQ(BodyFor(dispatcher, "/xz"), "Not Found");
}

TEST(HttpDispatcherTest, AnswersForWhatGoesWrong) {
    HttpDispatcher dispatcher;
    Handler throws([](const HttpRequest&, HttpResponse& response) {
        response.SetCode(200);
        response.SetBody("half");
        throw 1;
    });
    Handler splits([](const HttpRequest& request, HttpResponse& response) {
        response.SetCode(302);
        response.SetHeader("Location", request.GetPath());
    });
    Handler nothing([](const HttpRequest&, HttpResponse&) {});
    Handler twoLines([](const HttpRequest&, HttpResponse& response) {
        response.SetCode(200);
        response.SetProtocol("HTTP/1.1\r\nX: y");
    });
    dispatcher.AddHandler("/throws", &throws);
    dispatcher.AddHandler("/splits*", &splits);
    dispatcher.AddHandler("/nothing", &nothing);
    dispatcher.AddHandler("/two-lines", &twoLines);
    const LogCapture log(core::Logger::kError);
    EXPECT_EQ(Serve(dispatcher, "GET /unknown HTTP/1.1\r\n\r\n"),
              "HTTP/1.1 404 Not Found\r\nContent-Length: 9\r\nContent-Type: text/html; charset=UTF-8\r\n\r\n"
              "Not Found");
    EXPECT_EQ(Serve(dispatcher, "GET /throws HTTP/1.1\r\n\r\n"),
              "HTTP/1.1 500 Internal Server Error\r\nContent-Length: 4\r\n\r\nhalf");
    EXPECT_EQ(Serve(dispatcher, "GET /splits%0d%0aSet-Cookie:%20a HTTP/1.1\r\n\r\n"),
              "HTTP/1.1 500 Internal Server Error\r\n\r\n");
    EXPECT_EQ(Serve(dispatcher, "GET /two-lines HTTP/1.1\r\n\r\n"),
              "HTTP/1.1 500 Internal Server Error\r\n\r\n");
    EXPECT_TRUE(log.Contains("Handler for /throws threw exception: unknown"));
    EXPECT_TRUE(log.Contains("Handler for /splits\\x0d\\x0aSet-Cookie: a threw exception: BadRequest"));
    EXPECT_EQ(Serve(dispatcher, "GET /nothing HTTP/1.1\r\n\r\n"), "HTTP/1.1 503 Service Unavailable\r\n\r\n");
}

TEST(HttpDispatcherTest, WhatCannotBeReadIsABadRequest) {
    HttpDispatcher dispatcher;
    Handler any("any");
    dispatcher.AddHandler("*", &any);
    for (const std::string& text :
         {"GET / HTTP/1.1 extra\r\n\r\n"s, ""s, "GET"s, "\0"s, std::string(5000, 'x'),
          "GET /%zz HTTP/1.1\r\n\r\n"s, "GET / HTTP/1.1\r\nA: " + std::string(5000, 'x') + "\r\n\r\n",
          "PUT / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"s}) {
        EXPECT_EQ(Serve(dispatcher, text), kBadRequest) << text.substr(0, 40);
    }
    EXPECT_EQ(any.Calls(), 0);
    // An early end is not an error.
    EXPECT_EQ(Serve(dispatcher, "GET / HTTP/1.1"), "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nany");
}

TEST(HttpDispatcherTest, NoHandlerRunsAfterATimeoutInTheMiddle) {
    HttpDispatcher dispatcher;
    Handler any("any");
    dispatcher.AddHandler("*", &any);
    for (const char* text :
         {"", "PUT /config", "PUT /config HTTP/1.1\r\n",
          "PUT /config HTTP/1.1\r\nA: b\r\nC: ", "PUT /config HTTP/1.1\r\nContent-Length: 9\r\n\r\nhalf"}) {
        EXPECT_EQ(Serve(dispatcher, text, Wire::kBreaks), kBadRequest) << text;
    }
    EXPECT_EQ(any.Calls(), 0);
}

TEST(HttpDispatcherTest, LogsOnOneLine) {
    HttpDispatcher dispatcher;
    const LogCapture log;
    Serve(dispatcher, "BREW /a%0d%0aFATAL%7f%00b HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(log.Contains("Got BREW request for /a\\x0d\\x0aFATAL\\x7f"));
    EXPECT_TRUE(log.Contains("Missing handler for /a\\x0d\\x0aFATAL\\x7f"));
}

}  // namespace
}  // namespace zarip::inet
