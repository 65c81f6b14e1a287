#include <algorithm>
#include <sstream>
#include <string>

#include <zarip/inet/HttpDispatcher.h>
#include <zarip/inet/HttpFormatter.h>
#include <zarip/inet/HttpParser.h>
#include <zarip/inet/HttpRequest.h>
#include <zarip/inet/HttpResponse.h>
#include <zarip/inet/IHttpHandler.h>
#include <zarip/inet/ParserException.h>
#include <zarip/inet/Url.h>

#include "Targets.h"

namespace fuzz {

namespace {

using namespace zarip::inet;

/// False when the message is refused; anything but a `ParserException` or the text of `Url::Decode` ends the
/// process.
template <class Message>
bool Read(const std::string& text, Message& message) {
    std::istringstream stream(text);
    try {
        stream >> message;
        return true;
    } catch (const ParserException&) {
    } catch (const char*) {
    }
    return false;
}

template <class Message>
std::string Write(const Message& message) {
    std::ostringstream stream;
    stream << message;
    return stream.str();
}

bool FitsLines(const std::string& text) {
    std::size_t begin = 0;
    for (std::size_t end = 0; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
        if (end + 1 - begin > 4094) {
            return false;
        }
    }
    return true;
}

void CheckMessage(const HttpBase& message) {
    Check(message.GetProtocol().size() <= 64, "a protocol has 64 characters at the most");
    Check(message.GetBodyLength() <= 0x100000, "a body has 1 MiB at the most");
    Check(message.GetBody()[message.GetBodyLength()] == '\0', "a body is a text too");
    HttpBase::const_iterator header;
    HttpBase::const_iterator end;
    for (message.GetHeaders(header, end); header != end; ++header) {
        const auto& [name, value] = *header;
        Check(!name.empty() && name.size() <= 256 && value.size() <= 4096, "headers keep their limits");
        Check((name + value).find_first_of(std::string("\r\n\0", 3)) == std::string::npos,
              "a header is one line");
        Check(message.GetHeader(name) == &value, "a header is found");
    }
}

void CheckAgain(bool isRead, const std::string& first, const std::string& second) {
    Check(isRead, "what was written can be read");
    Check(first == second, "what was written and read is the same");
}

class Handler : public IHttpHandler {
public:
    void HandleRequest(const HttpRequest& request, HttpResponse& response) override {
        response.SetCode(200);
        response.SetHeader("X-Path", request.GetPath());
        response.SetBody(request.GetBody(), request.GetBodyLength());
    }
};

/// The answer of a dispatcher is a response, and a 400 exactly when the request cannot be read.
void CheckAnswer(const std::string& input, bool isRead) {
    HttpDispatcher dispatcher;
    Handler handler;
    dispatcher.AddHandler("*", &handler);
    std::istringstream in(input);
    std::ostringstream out;
    dispatcher.HandleRequest(in, out);
    HttpResponse response;
    Check(Read(out.str(), response), "the answer can be read");
    Check((response.GetCode() == 400) == !isRead, "400 tells what cannot be read");
}

}  // namespace

void Request(const std::string& input) {
    HttpRequest request;
    const bool isRead = Read(input, request);
    CheckMessage(request);
    CheckAnswer(input, isRead);
    // A path is written as it stands, so it is encoded first; an empty one would leave no target.
    if (!isRead || request.GetPath().empty()) {
        return;
    }
    HttpRequest encoded(request);
    encoded.SetPath(Url::Encode(request.GetPath()));
    const std::string text = Write(encoded);
    if (!FitsLines(text.substr(0, text.size() - request.GetBodyLength()))) {
        return;
    }
    HttpRequest again;
    const bool isReadAgain = Read(text, again);
    Check(again.GetPath() == request.GetPath(), "the path is the same");
    again.SetPath(encoded.GetPath());
    CheckAgain(isReadAgain, text, Write(again));
}

void Response(const std::string& input) {
    HttpResponse response;
    const bool isRead = Read(input, response);
    CheckMessage(response);
    const std::string text = Write(response);
    if (!isRead || !FitsLines(text.substr(0, text.size() - response.GetBodyLength()))) {
        return;
    }
    HttpResponse again;
    const bool isReadAgain = Read(text, again);
    CheckAgain(isReadAgain, text, Write(again));
}

}  // namespace fuzz
