// SPDX-License-Identifier: MIT

#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <utility>

#include <zarip/core/StringUtil.h>
#include <zarip/inet/HttpRequest.h>
#include <zarip/inet/HttpResponse.h>
#include <zarip/inet/IHttpHandler.h>
#include <zarip/osa/Exception.h>

#include "Fd.h"

/// Serves the files of a folder: "/a/b.css" is a/b.css in it, and "/" is index.html. *Thread-safe.*
///
/// No path leads out of the folder: each part of it is opened in the folder that the part before it has
/// opened, without following links. Names that begin with a dot are not served. Browsers may ask whether a
/// file has changed ("ETag"), and players and broken downloads may ask for a part of it ("Range"). An answer
/// has at most 16 MiB; larger files need an `IHttpStreamHandler`.
class FileHandler final : public zarip::inet::IHttpHandler {
public:
    static constexpr std::uint64_t kMostBytes = 16U << 20U;

    /// Throws `osa::Exception` if the folder cannot be opened.
    explicit FileHandler(const std::string& folder)
        : _folder(Check(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), folder.c_str())) {}

    void HandleRequest(const zarip::inet::HttpRequest& request,
                       zarip::inet::HttpResponse& response) override {
        std::string path = request.GetPath();
        if (!path.empty() && path.back() == '/') {
            path += "index.html";
        }
        const Fd file(Open(path));
        struct stat status {};
        if (file.Get() < 0 || ::fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
            AnswerCode(response, 404);
            return;
        }
        const std::string method = request.GetMethodName();
        if (method != "GET" && method != "HEAD") {
            response.SetHeader("Allow", "GET, HEAD");
            AnswerCode(response, 405);
            return;
        }
        response.SetHeader("Content-Type", TypeOf(path));
        response.SetHeader("Cache-Control", "no-cache");  // it asks each time, which costs little
        Send(request, file, status, response);
    }

private:
    struct Range {
        std::uint64_t begin;
        std::uint64_t end;  // the byte after the last one
    };

    static void AnswerCode(zarip::inet::HttpResponse& response, int code) {
        response.SetCode(code);
        response.SetHeader("Content-Type", "text/html; charset=UTF-8");
        response.SetBody(response.GetCodeText());
    }

    /// Returns -1 for a file that does not exist or must not be served.
    int Open(const std::string& path) const {
        if (path.empty() || path.front() != '/' || path.find('\0') != std::string::npos) {
            return -1;
        }
        int folder = ::fcntl(_folder.Get(), F_DUPFD_CLOEXEC, 0);
        for (std::size_t begin = 1; folder >= 0;) {
            const std::size_t slash = path.find('/', begin);
            const bool isLast = slash == std::string::npos;
            const std::string name = path.substr(begin, slash - begin);
            const Fd parent(folder);
            if (name.empty() || name.front() == '.') {
                return -1;
            }
            // Opening a pipe must not wait for a writer.
            const int kind = isLast ? O_NONBLOCK : O_DIRECTORY;
            folder = ::openat(parent.Get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | kind);
            if (isLast) {
                return folder;
            }
            begin = slash + 1;
        }
        return -1;
    }

    /// Anything else is offered to be saved, because a browser that guesses the type may run an uploaded
    /// file.
    static std::string TypeOf(const std::string& path) {
        static const std::map<std::string, const char*> types = {
            {"html", "text/html; charset=UTF-8"},
            {"css", "text/css; charset=UTF-8"},
            {"js", "text/javascript; charset=UTF-8"},
            {"json", "application/json"},
            {"svg", "image/svg+xml"},
            {"png", "image/png"},
            {"jpg", "image/jpeg"},
            {"ico", "image/x-icon"},
            {"txt", "text/plain; charset=UTF-8"},
            {"mp4", "video/mp4"},
            {"woff2", "font/woff2"},
        };
        const auto type = types.find(path.substr(path.rfind('.') + 1));
        return type != types.end() ? type->second : "application/octet-stream";
    }

    static std::string TagOf(const struct stat& status) {
        char tag[80];
        std::snprintf(tag, sizeof(tag), "\"%llx-%llx-%lx\"", static_cast<unsigned long long>(status.st_size),
                      static_cast<unsigned long long>(status.st_mtim.tv_sec),
                      static_cast<unsigned long>(status.st_mtim.tv_nsec));
        return tag;
    }

    static bool HoldsTag(const std::string* list, const std::string& tag) {
        return list != nullptr && (*list == "*" || list->find(tag) != std::string::npos);
    }

    static void Send(const zarip::inet::HttpRequest& request, const Fd& file, const struct stat& status,
                     zarip::inet::HttpResponse& response) {
        const auto size = static_cast<std::uint64_t>(status.st_size);
        const std::string tag = TagOf(status);
        response.SetHeader("ETag", tag);
        response.SetHeader("Accept-Ranges", "bytes");
        if (HoldsTag(request.GetHeader("If-None-Match"), tag)) {
            response.SetCode(304);
            return;
        }
        Range range = {0, size};
        int code = 200;
        const std::string* const only = request.GetHeader("If-Range");
        const std::string* const wanted = request.GetHeader("Range");
        if (wanted != nullptr && (only == nullptr || *only == tag)) {
            code = Parse(*wanted, size, range);
        }
        if (code == 416 || range.end - range.begin > kMostBytes) {
            response.SetHeader("Content-Range", "bytes */" + std::to_string(size));
            AnswerCode(response, 416);
            return;
        }
        if (code == 206) {
            response.SetHeader("Content-Range", "bytes " + std::to_string(range.begin) + "-" +
                                                    std::to_string(range.end - 1) + "/" +
                                                    std::to_string(size));
        }
        response.SetCode(code);
        response.SetBody(Read(file, range));
    }

    /// Returns 206 and the range, 416 if the file does not have it, or 200 for what is not one range, which
    /// is answered with the whole file.
    static int Parse(const std::string& wanted, std::uint64_t size, Range& range) {
        using zarip::core::StringUtil;
        const std::size_t dash = wanted.find('-');
        unsigned int first = 0;
        unsigned int last = 0;
        if (!StringUtil::StartsWith(wanted, "bytes=") || dash == std::string::npos) {
            return 200;
        }
        const std::string from = wanted.substr(6, dash - 6);
        const std::string to = wanted.substr(dash + 1);
        if ((!from.empty() && !StringUtil::TryParse(from, first)) ||
            (!to.empty() && !StringUtil::TryParse(to, last)) || (from.empty() && to.empty()) ||
            (!from.empty() && !to.empty() && last < first)) {
            return 200;
        }
        if (from.empty()) {
            range = {size - std::min<std::uint64_t>(last, size), size};
        } else {
            range = {first, to.empty() ? size : std::min<std::uint64_t>(size, std::uint64_t{last} + 1)};
        }
        return range.begin < range.end ? 206 : 416;
    }

    /// Throws `osa::Exception`.
    static std::string Read(const Fd& file, const Range& range) {
        std::string content(static_cast<std::size_t>(range.end - range.begin), '\0');
        std::size_t done = 0;
        while (done < content.size()) {
            const ssize_t count = ::pread(file.Get(), &content[done], content.size() - done,
                                          static_cast<off_t>(range.begin + done));
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count <= 0) {
                throw zarip::osa::Exception("the file became shorter while it was read");
            }
            done += static_cast<std::size_t>(count);
        }
        return content;
    }

    const Fd _folder;
};
