// SPDX-License-Identifier: MIT

// Parsing HTTP requests, beside a plain loop and Poco.
//
// The requests are a GET of a browser with 640 bytes and a POST with a form of 2 KiB. Each contestant reads
// from the same stream over memory and looks up one value in the end.

#include <Poco/Net/HTMLForm.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/NameValueCollection.h>
#include <strings.h>

#include <cctype>
#include <cstdlib>
#include <istream>
#include <map>
#include <streambuf>
#include <string>

#include <zarip/inet/HttpParser.h>
#include <zarip/inet/HttpRequest.h>

#include "Rounds.h"

namespace {

class MemoryStream : private std::streambuf, public std::istream {
public:
    explicit MemoryStream(std::string text) : std::istream(this), _text(std::move(text)) {}

    std::istream& Rewind() {
        setg(_text.data(), _text.data(), _text.data() + _text.size());
        clear();
        return *this;
    }

private:
    std::string _text;
};

// The least that a program would write for itself: lines into the same maps, no limits, every input is taken.

struct CaseInsensitive {
    bool operator()(const std::string& left, const std::string& right) const {
        return ::strcasecmp(left.c_str(), right.c_str()) < 0;
    }
};

struct PlainMessage {
    std::string method, path, protocol, query, body;
    std::map<std::string, std::string, CaseInsensitive> headers;
    std::map<std::string, std::string> cookies, queryParameters, formParameters;
};

std::string DecodePlainly(const std::string& text, bool isQuery) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            decoded += static_cast<char>(std::strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
            i += 2;
        } else {
            decoded += isQuery && text[i] == '+' ? ' ' : text[i];
        }
    }
    return decoded;
}

template <class Store>
void SplitPlainly(const std::string& text, char separator, Store store) {
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find(separator, begin), text.size());
        const std::size_t equals = text.find('=', begin);
        if (equals < end) {
            store(text.substr(begin, equals - begin), text.substr(equals + 1, end - equals - 1));
        }
        begin = end + 1;
    }
}

void ReadQueryPlainly(const std::string& query, std::map<std::string, std::string>& parameters) {
    SplitPlainly(query, '&', [&](const std::string& name, const std::string& value) {
        std::string upper = DecodePlainly(name, true);
        for (char& c : upper) {
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        }
        parameters[upper] = DecodePlainly(value, true);
    });
}

void ReadPlainly(std::istream& in, PlainMessage& message) {
    std::string line;
    std::string target;
    in >> message.method >> target >> message.protocol;
    std::getline(in, line);
    const std::size_t question = target.find('?');
    message.path = DecodePlainly(target.substr(0, question), false);
    if (question != std::string::npos) {
        message.query = target.substr(question + 1);
        ReadQueryPlainly(message.query, message.queryParameters);
    }
    while (std::getline(in, line) && line != "\r") {
        const std::size_t colon = line.find(':');
        const std::string name = line.substr(0, colon);
        const std::size_t begin = line.find_first_not_of(' ', colon + 1);
        const std::string value = line.substr(begin, line.size() - 1 - begin);
        message.headers[name] = value;
        if (::strcasecmp(name.c_str(), "Cookie") == 0) {
            SplitPlainly(value, ';', [&](const std::string& cookie, const std::string& content) {
                message.cookies[cookie.substr(cookie.find_first_not_of(' '))] = content;
            });
        }
    }
    const auto length = message.headers.find("Content-Length");
    if (length != message.headers.end()) {
        message.body.resize(std::strtoul(length->second.c_str(), nullptr, 10));
        in.read(message.body.data(), static_cast<std::streamsize>(message.body.size()));
        if (message.headers["Content-Type"] == "application/x-www-form-urlencoded") {
            ReadQueryPlainly(message.body, message.formParameters);
        }
    }
}

std::string BrowserGet() {
    std::string text =
        "GET /cgi/status%20page?channel=1&view=full&from=2024-05-01%2010%3A00&lang=en HTTP/1.1\r\n"
        "Host: camera-17.example.org:8080\r\n"
        "User-Agent: Mozilla/5.0 (X11; Linux x86_64; rv:115.0) Gecko/20100101 Firefox/115.0\r\n"
        "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,image/avif,*/*;q=0.8\r\n"
        "Accept-Language: en-US,en;q=0.5\r\n"
        "Accept-Encoding: gzip, deflate\r\n"
        "DNT: 1\r\n"
        "Connection: keep-alive\r\n"
        "Referer: http://camera-17.example.org:8080/index.html\r\n"
        "Cookie: session=3f9a6c1be02d4f7789ab; theme=dark; lang=en\r\n"
        "Upgrade-Insecure-Requests: 1\r\n"
        "X-Requested-With: ";
    return text + std::string(640 - 4 - text.size(), 'x') + "\r\n\r\n";
}

std::string FormPost() {
    std::string form = "action=save";
    for (int i = 1; form.size() < 2048; ++i) {
        const std::string zone = "&zone" + std::to_string(i) + ".";
        form += zone + "name=Loading+bay+" + std::to_string(i) + "%2C+north+side";
        form += zone + "enabled=true";
        form += zone + "points=120%2C80%3B640%2C80%3B640%2C420%3B120%2C420";
        form += zone + "sensitivity=" + std::to_string(40 + i);
        form += zone + "schedule=Mon-Fri+07%3A00-18%3A30";
    }
    form.resize(2048);
    return "POST /cgi/settings HTTP/1.1\r\nHost: camera-17.example.org\r\nConnection: keep-alive\r\n"
           "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: 2048\r\n\r\n" +
           form;
}

void Check(bool isRight) {
    if (!isRight) {
        std::abort();
    }
}

}  // namespace

int main(int argc, char** argv) {
    const bench::Options options = bench::ParseOptions(argc, argv);
    MemoryStream get(BrowserGet());
    bench::Rounds gets("GET of a browser, 640 bytes", options);
    gets.Add("plain loop, same maps", [&] {
        PlainMessage message;
        ReadPlainly(get.Rewind(), message);
        Check(message.cookies["theme"] == "dark" && message.queryParameters.size() == 4);
    });
    gets.Add("Poco HTTPRequest::read", [&] {
        Poco::Net::HTTPRequest request;
        request.read(get.Rewind());
        Check(request.getHost() == "camera-17.example.org:8080");
    });
    gets.Add("Poco, with cookies and query", [&] {
        Poco::Net::HTTPRequest request;
        request.read(get.Rewind());
        Poco::Net::NameValueCollection cookies;
        request.getCookies(cookies);
        const Poco::Net::HTMLForm form(request);
        Check(cookies["theme"] == "dark" && form.size() == 4);
    });
    gets.Add("zarip", [&] {
        zarip::inet::HttpRequest request;
        get.Rewind() >> request;
        Check(*request.GetCookie("theme") == "dark" && request.GetQueryParameter("lang") != nullptr);
    });
    gets.Run();

    MemoryStream post(FormPost());
    bench::Rounds posts("POST of a form, 2 KiB", options);
    posts.Add("plain loop, same maps", [&] {
        PlainMessage message;
        ReadPlainly(post.Rewind(), message);
        Check(message.formParameters["ZONE2.NAME"] == "Loading bay 2, north side");
    });
    posts.Add("Poco HTTPRequest::read, HTMLForm", [&] {
        Poco::Net::HTTPRequest request;
        request.read(post.Rewind());
        const Poco::Net::HTMLForm form(request, post);
        Check(form["zone2.name"] == "Loading bay 2, north side");
    });
    posts.Add("zarip", [&] {
        zarip::inet::HttpRequest request;
        post.Rewind() >> request;
        Check(*request.GetFormParameter("zone2.name") == "Loading bay 2, north side");
    });
    posts.Run();
    return EXIT_SUCCESS;
}
