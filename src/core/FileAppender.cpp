#include "zarip/core/FileAppender.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "zarip/core/StderrAppender.h"
#include "zarip/core/StdoutAppender.h"
#include "zarip/osa/Exception.h"

namespace zarip::core {

namespace {

/// Enough for nearly every record; a longer one is built on the heap.
constexpr std::size_t kBufferSize = 1024;

struct Field {
    Field(const char* content, std::size_t minimum)
        : text(content != nullptr ? content : "(null)"),
          length(std::strlen(text)),
          padding(length < minimum ? minimum - length : 0) {}

    std::size_t Width() const { return padding + length; }

    char* Put(char* out) const {
        std::memset(out, ' ', padding);
        std::memcpy(out + padding, text, length);
        return out + Width();
    }

    const char* text;
    std::size_t length;
    std::size_t padding;
};

template <std::size_t N>
char* PutLiteral(char* out, const char (&text)[N]) {
    std::memcpy(out, text, N - 1);
    return out + N - 1;
}

/// "(%5s) %20s [%5s] :: ", built by hand: printf takes three times as long.
class Prefix {
public:
    Prefix(const char* threadName, const char* loggerName, const char* levelName)
        : _thread(threadName, 5), _logger(loggerName, 20), _level(levelName, 5) {}

    std::size_t Width() const { return _thread.Width() + _logger.Width() + _level.Width() + 10; }

    void Put(char* out) const {
        *out++ = '(';
        out = PutLiteral(_thread.Put(out), ") ");
        out = PutLiteral(_logger.Put(out), " [");
        PutLiteral(_level.Put(out), "] :: ");
    }

private:
    Field _thread;
    Field _logger;
    Field _level;
};

/// Writes and flushes in one piece, between what others print to the stream.
void WriteRecord(FILE* file, const char* record, std::size_t length) {
    struct StreamLock {
        explicit StreamLock(FILE* locked) : stream(locked) { ::flockfile(stream); }
        StreamLock(const StreamLock&) = delete;
        StreamLock& operator=(const StreamLock&) = delete;
        ~StreamLock() { ::funlockfile(stream); }
        FILE* stream;
    };
    const StreamLock lock(file);
    ::fwrite_unlocked(record, 1, length, file);
    ::fflush_unlocked(file);
}

FILE* OpenForAppending(const char* path) {
    // "a", and closed in other programs that the process starts
    FILE* const file = std::fopen(path != nullptr ? path : "", "ae");
    if (file == nullptr) {
        throw osa::Exception(std::string("Failed to open file ") + (path != nullptr ? path : "") +
                             "for mode" + "a");
    }
    return file;
}

}  // namespace

FileAppender::FileAppender(const char* path) : _file(OpenForAppending(path)), _owned(true) {}

FileAppender::FileAppender(FILE* file, bool owned) : _file(file), _owned(owned) {
    if (_file == nullptr) {
        throw osa::Exception(std::string("pFile") + " must not be NULL");
    }
}

FileAppender::~FileAppender() {
    if (_owned) {
        std::fclose(_file);
    }
}

void FileAppender::AppendV(Logger::LogLevel level, const char* threadName, const char* loggerName,
                           const char* format, va_list args) const {
    const Prefix prefix(threadName, loggerName, Logger::GetLevelString(level));
    const std::size_t prefixWidth = prefix.Width();
    char buffer[kBufferSize];
    const std::size_t space = prefixWidth < kBufferSize ? kBufferSize - prefixWidth : 0;

    va_list copy;
    va_copy(copy, args);
    const int result = std::vsnprintf(space > 0 ? buffer + prefixWidth : nullptr, space, format, copy);
    va_end(copy);
    const std::size_t length = result > 0 ? static_cast<std::size_t>(result) : 0;

    if (length < space) {
        prefix.Put(buffer);
        buffer[prefixWidth + length] = '\n';
        WriteRecord(_file, buffer, prefixWidth + length + 1);
        return;
    }
    const std::unique_ptr<char[]> record(new (std::nothrow) char[prefixWidth + length + 1]);
    if (!record) {
        if (space > 0) {  // no memory: what fits is better than nothing
            prefix.Put(buffer);
            buffer[kBufferSize - 1] = '\n';
            WriteRecord(_file, buffer, kBufferSize);
        }
        return;
    }
    prefix.Put(record.get());
    const int again = std::vsnprintf(record.get() + prefixWidth, length + 1, format, args);
    const std::size_t written = again > 0 ? std::min(static_cast<std::size_t>(again), length) : 0;
    record[prefixWidth + written] = '\n';
    WriteRecord(_file, record.get(), prefixWidth + written + 1);
}

StdoutAppender::StdoutAppender() : FileAppender(stdout, false) {}
StdoutAppender::~StdoutAppender() = default;

StderrAppender::StderrAppender() : FileAppender(stderr, false) {}
StderrAppender::~StderrAppender() = default;

}  // namespace zarip::core
