#include "zarip/inet/HttpDispatcher.h"

#include <istream>
#include <map>
#include <ostream>

#include "zarip/core/Logger.h"
#include "zarip/core/StringUtil.h"
#include "zarip/inet/HttpFormatter.h"
#include "zarip/inet/HttpParser.h"
#include "zarip/inet/HttpRequest.h"
#include "zarip/inet/HttpResponse.h"
#include "zarip/inet/IHttpHandler.h"

namespace zarip::inet {

namespace {

struct LongerFirst {
    bool operator()(const std::string& left, const std::string& right) const {
        return left.size() != right.size() ? left.size() > right.size() : left < right;
    }
};

/// The text with control characters as "\xNN": a record of the log is one line, whatever a client sends.
std::string Printable(const std::string& text) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string printable;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < ' ' || byte == 0x7F) {
            printable.append("\\x").append(1, kDigits[byte >> 4U]).append(1, kDigits[byte & 0xFU]);
        } else {
            printable += c;
        }
    }
    return printable;
}

bool Read(std::istream& in, HttpRequest& request) {
    try {
        in >> request;
        return true;
    } catch (...) {
        return false;
    }
}

}  // namespace

struct HttpDispatcherImpl {
    void Answer(const HttpRequest& request, HttpResponse& response) const;

    core::Logger* _logger = core::Logger::GetLogger("HttpDispatcher");  // not owned
    std::map<std::string, IHttpHandler*, LongerFirst> _handlers;        // not owned
};

void HttpDispatcherImpl::Answer(const HttpRequest& request, HttpResponse& response) const {
    if (_logger->IsEnabled(core::Logger::kTrace)) {
        _logger->Trace("Got %s request for %s", Printable(request.GetMethodName()).c_str(),
                       Printable(request.GetPath()).c_str());
    }
    for (const auto& [pattern, handler] : _handlers) {
        if (core::StringUtil::MatchesPattern(pattern, request.GetPath())) {
            handler->HandleRequest(request, response);
            return;
        }
    }
    if (_logger->IsEnabled(core::Logger::kInformation)) {
        _logger->Information("Missing handler for %s", Printable(request.GetPath()).c_str());
    }
    response.SetCode(404);
    response.SetHeader("Content-Type", "text/html; charset=UTF-8");
    response.SetBody(response.GetCodeText());
}

HttpDispatcher::HttpDispatcher() : _impl(std::make_unique<HttpDispatcherImpl>()) {}

HttpDispatcher::~HttpDispatcher() = default;

void HttpDispatcher::AddHandler(const std::string& pattern, IHttpHandler* handler) {
    _impl->_handlers[pattern] = handler;
}

void HttpDispatcher::RemoveHandler(IHttpHandler* handler) {
    auto& handlers = _impl->_handlers;
    for (auto entry = handlers.begin(); entry != handlers.end();) {
        entry = entry->second == handler ? handlers.erase(entry) : std::next(entry);
    }
}

void HttpDispatcher::HandleRequest(std::istream& in, std::ostream& out) {
    HttpResponse response;
    response.SetProtocol("HTTP/1.1");
    HttpRequest request;
    if (Read(in, request)) {
        try {
            _impl->Answer(request, response);
        } catch (...) {
            response.SetCode(500);
        }
    } else {
        response.SetCode(400);
    }
    // Where both are one stream, reading may have ended in a failure, and nothing would be written.
    out.clear();
    out << response;
}

}  // namespace zarip::inet
