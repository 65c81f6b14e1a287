// SPDX-License-Identifier: MIT

#include "zarip/inet/HttpDispatcher.h"

#include <exception>
#include <istream>
#include <map>
#include <ostream>

#include "zarip/core/Logger.h"
#include "zarip/core/StringUtil.h"
#include "zarip/inet/HttpFormatter.h"
#include "zarip/inet/HttpParser.h"
#include "zarip/inet/HttpRequest.h"
#include "zarip/inet/HttpResponse.h"
#include "zarip/inet/IHttpConnection.h"
#include "zarip/inet/IHttpStreamHandler.h"
#include "zarip/inet/ParserException.h"

namespace zarip::inet {

namespace {

struct LongerFirst {
    bool operator()(const std::string& left, const std::string& right) const {
        return left.size() != right.size() ? left.size() > right.size() : left < right;
    }
};

/// Replaces control characters by "\xNN", so that a log record is one line whatever a client sends.
std::string MakePrintable(const std::string& text) {
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

bool ReadRequest(std::istream& in, HttpRequest& request) {
    try {
        in >> request;
        return true;
    } catch (...) {
        return false;
    }
}

}  // namespace

struct HttpDispatcherImpl {
    struct Entry {
        IHttpHandler* handler;       // not owned
        IHttpStreamHandler* stream;  // the same object if it is a stream handler, otherwise null
    };

    const Entry* FindEntry(const std::string& path) const;
    void TraceRequest(const HttpRequest& request) const;
    void AnswerMissing(const HttpRequest& request, HttpResponse& response) const;
    void LogCaught(const HttpRequest& request) const noexcept;

    /// Calls `answer(entry)` with the entry for the request's path. Answers 404 if there is no entry and 500
    /// if `answer` throws, and logs both.
    template <class Answer>
    void ServeRequest(const HttpRequest& request, HttpResponse& response, Answer answer) const {
        try {
            TraceRequest(request);
            if (const Entry* const entry = FindEntry(request.GetPath())) {
                answer(*entry);
            } else {
                AnswerMissing(request, response);
            }
        } catch (...) {
            LogCaught(request);
            response.SetCode(500);
        }
    }

    core::Logger* _logger = core::Logger::GetLogger("HttpDispatcher");  // not owned
    std::map<std::string, Entry, LongerFirst> _handlers;
    bool _hasStreams = false;
};

const HttpDispatcherImpl::Entry* HttpDispatcherImpl::FindEntry(const std::string& path) const {
    for (const auto& [pattern, entry] : _handlers) {
        if (core::StringUtil::MatchesPattern(pattern, path)) {
            return &entry;
        }
    }
    return nullptr;
}

void HttpDispatcherImpl::TraceRequest(const HttpRequest& request) const {
    if (_logger->IsEnabled(core::Logger::kTrace)) {
        _logger->Trace("Got %s request for %s", MakePrintable(request.GetMethodName()).c_str(),
                       MakePrintable(request.GetPath()).c_str());
    }
}

void HttpDispatcherImpl::AnswerMissing(const HttpRequest& request, HttpResponse& response) const {
    if (_logger->IsEnabled(core::Logger::kInformation)) {
        _logger->Information("Missing handler for %s", MakePrintable(request.GetPath()).c_str());
    }
    response.SetCode(404);
    response.SetHeader("Content-Type", "text/html; charset=UTF-8");
    response.SetBody(response.GetCodeText());
}

/// Logs the current exception; to be called in a catch block.
void HttpDispatcherImpl::LogCaught(const HttpRequest& request) const noexcept {
    try {
        const std::string path = MakePrintable(request.GetPath());
        try {
            throw;
        } catch (const std::exception& e) {
            _logger->Error("Handler for %s threw exception: %s", path.c_str(),
                           MakePrintable(e.what()).c_str());
        } catch (const char* text) {
            _logger->Error("Handler for %s threw exception: %s", path.c_str(), MakePrintable(text).c_str());
        } catch (...) {
            _logger->Error("Handler for %s threw exception: %s", path.c_str(), "unknown");
        }
    } catch (...) {
        // There is no memory for the log record either.
    }
}

HttpDispatcher::HttpDispatcher() : _impl(std::make_unique<HttpDispatcherImpl>()) {}

HttpDispatcher::~HttpDispatcher() = default;

void HttpDispatcher::AddHandler(const std::string& pattern, IHttpHandler* handler) {
    auto* const stream = dynamic_cast<IHttpStreamHandler*>(handler);
    _impl->_handlers[pattern] = {handler, stream};
    _impl->_hasStreams = _impl->_hasStreams || stream != nullptr;
}

void HttpDispatcher::RemoveHandler(IHttpHandler* handler) {
    auto& handlers = _impl->_handlers;
    for (auto entry = handlers.begin(); entry != handlers.end();) {
        entry = entry->second.handler == handler ? handlers.erase(entry) : std::next(entry);
    }
}

void HttpDispatcher::HandleRequest(std::istream& in, std::ostream& out) {
    HttpResponse response;
    response.SetProtocol("HTTP/1.1");
    HttpRequest request;
    if (ReadRequest(in, request)) {
        HandleRequest(request, response);
    } else {
        response.SetCode(400);
    }
    // If `in` and `out` are the same stream, a failed read would prevent writing.
    out.clear();
    try {
        out << response;
    } catch (const ParserException&) {
        // The handler has set a protocol that contains a line end.
        HttpResponse failure;
        failure.SetProtocol("HTTP/1.1");
        failure.SetCode(500);
        out << failure;
    }
}

void HttpDispatcher::HandleRequest(const HttpRequest& request, HttpResponse& response) {
    _impl->ServeRequest(request, response, [&](const HttpDispatcherImpl::Entry& entry) {
        entry.handler->HandleRequest(request, response);
    });
}

bool HttpDispatcher::IsStream(const std::string& path) const {
    const HttpDispatcherImpl::Entry* const entry = _impl->_hasStreams ? _impl->FindEntry(path) : nullptr;
    return entry != nullptr && entry->stream != nullptr;
}

void HttpDispatcher::HandleHead(const HttpRequest& head, HttpResponse& response,
                                IHttpConnection& connection) {
    _impl->ServeRequest(head, response, [&](const HttpDispatcherImpl::Entry& entry) {
        if (entry.stream == nullptr) {
            _impl->AnswerMissing(head, response);
        } else {
            entry.stream->HandleHead(head, response, connection);
        }
    });
}

}  // namespace zarip::inet
