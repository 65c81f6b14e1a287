// SPDX-License-Identifier: MIT

#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <zarip/core/Logger.h>
#include <zarip/core/StringUtil.h>
#include <zarip/crypto/Digests.h>
#include <zarip/inet/HttpFormatter.h>
#include <zarip/inet/HttpRequest.h>
#include <zarip/inet/HttpResponse.h>
#include <zarip/inet/IHttpConnection.h>
#include <zarip/inet/IHttpStreamHandler.h>
#include <zarip/osa/Exception.h>
#include <zarip/osa/TcpSocket.h>
#include <zarip/osa/TcpSocketStream.h>

#include "Failure.h"
#include "Fd.h"

/// Takes a file that does not fit into memory: "PUT /firmware?sha256=...", where the parameter is the digest
/// of the body in hexadecimal digits. *Thread-safe.*
///
/// The body goes to a new file beside the target in pieces of 64 KiB. Only if all of it has come and its
/// digest is the announced one does it become the target, which until then is what it was; otherwise the new
/// file is removed. One upload at a time, on a thread of its own. What is refused is refused before its body
/// is read.
class FirmwareUpload final : public zarip::inet::IHttpStreamHandler {
public:
    static constexpr unsigned long long kMostBytes = 256ULL << 20U;
    static constexpr unsigned int kSilenceSeconds = 10;
    static constexpr unsigned int kAnswerMs = 1'000;  // the next upload waits for it

    /// Throws `Failure` to refuse a request.
    using Admit = std::function<void(const zarip::inet::HttpRequest&)>;

    FirmwareUpload(std::string target, Admit admit) : _target(std::move(target)), _admit(std::move(admit)) {}
    FirmwareUpload(const FirmwareUpload&) = delete;
    FirmwareUpload& operator=(const FirmwareUpload&) = delete;

    /// Ends an upload that runs. The server that this was added to has stopped by then.
    ~FirmwareUpload() override {
        if (_thread.joinable()) {
            _socket->CancelRecv();
            _thread.join();
        }
    }

    void HandleHead(const zarip::inet::HttpRequest& head, zarip::inet::HttpResponse& response,
                    zarip::inet::IHttpConnection& connection) override {
        try {
            if (head.GetMethodName() != "PUT") {
                response.SetHeader("Allow", "PUT");
                throw Failure{405, "This method does not fit here."};
            }
            _admit(head);
            const std::string* const digest = head.GetQueryParameter("sha256");
            const unsigned long long length = connection.GetContentLength();
            if (digest == nullptr || digest->size() != 64) {
                throw Failure{400, "What is the SHA-256 of the file? Please add ?sha256=..."};
            }
            if (length == 0 || length > kMostBytes) {
                throw Failure{length == 0 ? 411 : 413, "The file may have 1 to 268435456 bytes."};
            }
            Start(connection, length, *digest);
        } catch (const Failure& failure) {
            Answer(response, failure);
        }
    }

private:
    void Start(zarip::inet::IHttpConnection& connection, unsigned long long length, std::string digest) {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (_isRunning) {
            throw Failure{409, "Another upload is running."};
        }
        if (_thread.joinable()) {
            _thread.join();  // it ends
        }
        _socket = connection.Take();
        zarip::core::StringUtil::ToLower(digest);
        _isRunning = true;
        try {
            _thread = std::thread([this, length, digest] { Run(length, digest); });
        } catch (...) {
            _isRunning = false;
            throw;
        }
    }

    /// On the thread of the upload.
    void Run(unsigned long long length, const std::string& digest) {
        zarip::inet::HttpResponse response;
        response.SetProtocol("HTTP/1.1");
        response.SetHeader("Connection", "close");
        const std::string part = _target + ".part";
        try {
            Receive(part, length, digest);
            Answer(response, 200, "{\"bytes\":" + std::to_string(length) + "}");
        } catch (const Failure& failure) {
            Answer(response, failure);
        } catch (const std::exception& e) {
            _logger->Warning("An upload has failed: %s", e.what());
            Answer(response, Failure{500, "The file could not be received or written."});
        }
        ::unlink(part.c_str());
        _isRunning = false;  // a client that has its answer may begin the next one
        try {
            _socket->SetTimeLimit(kAnswerMs);
            zarip::osa::TcpSocketStream stream(_socket.get());
            stream << response;
            stream.flush();
            _socket->Finish();
        } catch (const std::exception& e) {
            _logger->Debug("The client of an upload has gone: %s", e.what());
        }
        _socket->Close();
    }

    /// Throws `Failure` and `osa::Exception`.
    void Receive(const std::string& part, unsigned long long length, const std::string& digest) {
        ::unlink(part.c_str());  // of a process that was killed
        const Fd file(
            Check(::open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR), "open"));
        zarip::crypto::SHA256 sum;
        std::vector<char> piece(64U << 10U);
        for (unsigned long long left = length; left > 0;) {
            const auto most = static_cast<unsigned int>(std::min<unsigned long long>(left, piece.size()));
            const unsigned int count = _socket->Recv(piece.data(), most, kSilenceSeconds);
            if (count == 0) {
                throw Failure{400, "The file has ended before its announced length."};
            }
            sum.Update(std::string_view(piece.data(), count));
            Write(file, piece.data(), count);
            left -= count;
        }
        const std::string actual = ToHex(sum.Finish());
        if (actual != digest) {
            throw Failure{400, "The SHA-256 of what has arrived is " + actual + "."};
        }
        Check(::fsync(file.Get()), "fsync");
        Check(std::rename(part.c_str(), _target.c_str()), "rename");
    }

    static void Write(const Fd& file, const char* data, std::size_t size) {
        while (size > 0) {
            const ssize_t count = ::write(file.Get(), data, size);
            if (count < 0 && errno == EINTR) {
                continue;
            }
            Check(static_cast<int>(count), "write");
            data += count;
            size -= static_cast<std::size_t>(count);
        }
    }

    static std::string ToHex(const std::string& bytes) {
        std::string hex;
        for (const char byte : bytes) {
            char digits[3];
            std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned char>(byte));
            hex += digits;
        }
        return hex;
    }

    zarip::core::Logger* const _logger = zarip::core::Logger::GetLogger("FirmwareUpload");
    const std::string _target;
    const Admit _admit;
    std::mutex _mutex;  // one start at a time
    std::atomic<bool> _isRunning{false};
    std::unique_ptr<zarip::osa::TcpSocket> _socket;  // the thread's while it runs
    std::thread _thread;
};
