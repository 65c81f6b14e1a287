// SPDX-License-Identifier: MIT

#include "inet/HttpExchange.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "inet/Address.h"
#include "inet/MessageHead.h"
#include "inet/MessageText.h"
#include "osa/DescribeCaught.h"
#include "osa/Errors.h"
#include "osa/TcpSocketImpl.h"
#include "zarip/core/Logger.h"
#include "zarip/inet/HttpParser.h"
#include "zarip/inet/ParserException.h"
#include "zarip/osa/Exception.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::inet {

namespace {

constexpr osa::MonotonicMs kDrainMs = 30'000;
/// Answers up to this size are sent and captured in one piece.
constexpr std::size_t kOnePiece = 8'192;
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

/// Formats a time for the header "Date", independently of the locale.
void FormatDate(std::time_t time, char (&text)[64]) {
    constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::tm t{};
    ::gmtime_r(&time, &t);
    std::snprintf(text, sizeof(text), "%s, %02d %s %04d %02d:%02d:%02d GMT", kDays[t.tm_wday], t.tm_mday,
                  kMonths[t.tm_mon], t.tm_year + 1900, t.tm_hour, t.tm_min, t.tm_sec);
}

/// Returns the current date. It is formatted once per second and thread.
const char* GetDate() {
    thread_local std::time_t t_time = -1;
    thread_local char t_text[64] = "";
    const std::time_t now = std::time(nullptr);
    if (now != t_time) {
        FormatDate(now, t_text);
        t_time = now;
    }
    return t_text;
}

/// Does the same as inet_ntop, which formats with printf and would take a hundredth of the time of each
/// request.
void WriteIpv4(const void* binary, char (&text)[16]) {
    unsigned char bytes[4];
    std::memcpy(bytes, binary, sizeof(bytes));
    char* out = text;
    for (const unsigned char byte : bytes) {
        out = std::to_chars(out, text + sizeof(text), byte).ptr;
        *out++ = '.';
    }
    out[-1] = '\0';
}

_ipaddr_t ToAddress(const osa::SocketAddress& socket) {
    static const _ipaddr_t kNone = ParseAddress("0.0.0.0:0");
    _ipaddr_t address = kNone;
    if (socket.any.sa_family == AF_INET) {
        WriteIpv4(&socket.ipv4.sin_addr, address.ipv4);
        address.port = ntohs(socket.ipv4.sin_port);
    } else if (socket.any.sa_family == AF_INET6) {
        const in6_addr& binary = socket.ipv6.sin6_addr;
        address.port = ntohs(socket.ipv6.sin6_port);
        if (IN6_IS_ADDR_V4MAPPED(&binary)) {  // an IPv4 client of an IPv6 server
            WriteIpv4(binary.s6_addr + 12, address.ipv4);
        } else {
            address.ipv4[0] = '\0';
            ::inet_ntop(AF_INET6, &binary, address.ipv6, sizeof(address.ipv6));
        }
    }
    return address;
}

}  // namespace

_ipaddr_t FindLocalAddress(int fd) {
    osa::SocketAddress local;
    local.length = sizeof(local.storage);
    return ToAddress(::getsockname(fd, &local.any, &local.length) == 0 ? local : osa::SocketAddress());
}

void HttpService::LogFailure(const std::string& text) {
    unsigned int suppressed = 0;
    {
        const osa::MutexAutoLock lock(&_mutex);
        if (!_limit.Allows(suppressed)) {
            return;
        }
    }
    logger->Error("Error in AcceptSocket:  %s", text.c_str());
    if (suppressed > 0) {
        logger->Error("%u more connections have failed since the last such record", suppressed);
    }
}

void HttpService::LogCaught() noexcept {
    try {
        LogFailure(osa::DescribeCaught());
    } catch (...) {
        // There is no memory for the log record either.
    }
}

bool HttpExchange::IsReady(std::string_view text) {
    RequestProgress& progress = _connection.progress;
    progress.ScanText(text);
    if (progress.HasNewFirstLine() && !progress.HasHead() &&
        !CanBeRequest(text.substr(0, progress.GetFirstLine()))) {
        progress.SetHopeless();
    }
    if (_connection.hasEnded || progress.IsHopeless()) {
        _isRefused = !ReadHead(text);
        return true;
    }
    if (!progress.HasHead()) {
        return false;
    }
    if (progress.GetLength() == 0) {
        _isRefused = !ReadHead(text);
        if (_isRefused || _service.dispatcher.IsStream(_request.GetPath())) {
            return true;
        }
        _isRefused = _length > MessageReader::kMaxBody;
        if (_isRefused) {
            return true;
        }
        progress.SetLength(progress.GetHead() + static_cast<std::size_t>(_length));
    }
    return text.size() >= progress.GetLength();
}

bool HttpExchange::CanBeRequest(std::string_view firstLine) const {
    HttpRequest request;
    MemoryReader reader(firstLine);
    try {
        HttpParser().ReadHead(reader, request);
        return true;
    } catch (...) {
        return false;
    }
}

/// Returns false if the request is malformed.
bool HttpExchange::ReadHead(std::string_view text) {
    try {
        _reader.emplace(text);
        _length = HttpParser().ReadHead(*_reader, _request);
        _rest = _reader->GetRest();
        _request.SetSource(ToAddress(_connection.peer));
        _request.SetDest(_service.isLocalCertain ? _service.local : FindLocalAddress(_connection.fd.Get()));
        _hasHead = true;
        return true;
    } catch (...) {
        return false;
    }
}

bool HttpExchange::ExpectsContinue() const {
    const std::string* const expectation = _request.GetHeader("Expect");
    return _service.isStandard && expectation != nullptr &&
           EqualsIgnoringCase(*expectation, "100-continue") && _request.GetProtocol() == "HTTP/1.1";
}

void HttpExchange::SendContinue(std::string_view text) {
    if (_hasHead && ExpectsContinue() && text.size() == _connection.progress.GetHead()) {
        _service.capture->Dump(0, _connection.port, kContinue.data(), kContinue.size());
        ::send(_connection.fd.Get(), kContinue.data(), kContinue.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
}

void HttpExchange::ServeRequest(std::string_view text) noexcept {
    try {
        _response.SetProtocol("HTTP/1.1");
        MakeAnswer(text);
        if (!_isTaken) {
            SendAnswer();
        }
    } catch (...) {
        _service.LogCaught();
        _connection.fd = osa::UniqueFd();
    }
}

void HttpExchange::RefuseRequest() noexcept {
    try {
        _response.SetProtocol("HTTP/1.1");
        _response.SetCode(400);
        _connection.isCut = true;
        SendAnswer();
    } catch (...) {
        _service.LogCaught();
        _connection.fd = osa::UniqueFd();
    }
}

void HttpExchange::MakeAnswer(std::string_view text) {
    const std::size_t length = _connection.progress.GetLength();
    _connection.isCut = length == 0 || text.size() < length;
    if (!_hasHead && !ReadHead(text)) {
        _response.SetCode(400);
    } else if (_service.dispatcher.IsStream(_request.GetPath())) {
        _service.dispatcher.HandleHead(_request, _response, *this);
    } else {
        HandleWhole();
    }
}

void HttpExchange::HandleWhole() {
    try {
        HttpParser().ReadBody(*_reader, _length, _request);
    } catch (...) {
        _response.SetCode(400);
        return;
    }
    _service.dispatcher.HandleRequest(_request, _response);
}

std::unique_ptr<osa::TcpSocket> HttpExchange::Take() {
    if (_isTaken) {
        throw osa::Exception("Connection was taken");
    }
    osa::AcceptedSocket::Origin origin;
    origin.readAhead = std::string(_rest);
    if (_rest.empty() && _length > 0 && ExpectsContinue()) {
        ::send(_connection.fd.Get(), kContinue.data(), kContinue.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        _service.capture->Dump(0, _connection.port, kContinue.data(), kContinue.size());
    }
    if (_service.family != AF_UNIX) {
        // A frame of a stream is sent at once, even if the previous frame has not been acknowledged.
        const int on = 1;
        ::setsockopt(_connection.fd.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    }
    origin.fd = std::move(_connection.fd);
    origin.family = _service.family;
    origin.port = _connection.port;
    origin.capture = _service.capture;
    _isTaken = true;
    return osa::AcceptedSocket::Make(std::move(origin));
}

void HttpExchange::AddStandardHeaders() {
    if (_response.GetHeader("Connection") == nullptr) {
        _response.SetHeader("Connection", "close");
    }
    if (_response.GetHeader("Date") == nullptr) {
        _response.SetHeader("Date", GetDate());
    }
}

std::string HttpExchange::MakeHead() {
    if (_service.isStandard) {
        AddStandardHeaders();
    }
    std::string head = MakeStatusLine(_response);
    CompleteHead(head, _response);
    return head;
}

void HttpExchange::SendAnswer() {
    std::string head;
    bool hasBody = true;
    try {
        head = MakeHead();
        hasBody = !_service.isStandard || _request.GetMethod() != HttpRequest::HEAD;
    } catch (const ParserException&) {
        // The handler has set a protocol that contains a line end.
        head = "HTTP/1.1 500 Internal Server Error\r\n\r\n";
        hasBody = false;
    }
    std::size_t bodyLength = hasBody ? _response.GetBodyLength() : 0;
    if (head.size() + bodyLength <= kOnePiece) {
        head.append(_response.GetBody(), bodyLength);
        bodyLength = 0;
    }
    iovec parts[] = {{head.data(), head.size()}, {const_cast<char*>(_response.GetBody()), bodyLength}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    const ssize_t result = ::sendmsg(_connection.fd.Get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (result < 0 && errno != EAGAIN && errno != EINTR) {
        osa::ThrowErrno("send failed");
    }
    std::size_t sent = static_cast<std::size_t>(std::max<ssize_t>(result, 0));
    _connection.bytes.clear();
    for (const iovec& part : parts) {
        const char* const data = static_cast<const char*>(part.iov_base);
        const std::size_t gone = std::min(sent, part.iov_len);
        _service.capture->Dump(0, _connection.port, data, gone);
        _connection.bytes.append(data + gone, part.iov_len - gone);
        sent -= gone;
    }
    _connection.written = 0;
    _connection.state = ServedConnection::State::kWriting;
    _connection.end = osa::kNever;
    if (_connection.bytes.empty()) {
        WriteAnswer(_service, _connection);
    }
}

void HttpExchange::WriteAnswer(HttpService& service, ServedConnection& connection) {
    const std::string& answer = connection.bytes;
    if (connection.written < answer.size()) {
        const ssize_t sent = ::send(connection.fd.Get(), answer.data() + connection.written,
                                    answer.size() - connection.written, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno != EAGAIN && errno != EINTR) {
            osa::ThrowErrno("send failed");
        }
        const auto count = static_cast<std::size_t>(std::max<ssize_t>(sent, 0));
        service.capture->Dump(0, connection.port, answer.data() + connection.written, count);
        connection.written += count;
        if (connection.written < answer.size()) {
            return;
        }
    }
    // Closing a socket with unread bytes resets the connection, and the client would lose the end of the
    // answer.
    char byte = 0;
    if (connection.hasEnded ||
        (!connection.isCut && ::recv(connection.fd.Get(), &byte, 1, MSG_DONTWAIT) <= 0)) {
        connection.fd = osa::UniqueFd();
        return;
    }
    connection.bytes.clear();
    connection.bytes.shrink_to_fit();
    ::shutdown(connection.fd.Get(), SHUT_WR);
    connection.state = ServedConnection::State::kDraining;
    connection.end = osa::NowMs() + kDrainMs;
}

}  // namespace zarip::inet
