// SPDX-License-Identifier: MIT

#include "zarip/core/FileAppender.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "zarip/core/StderrAppender.h"
#include "zarip/core/StdoutAppender.h"
#include "zarip/osa/Exception.h"

namespace zarip::core {

namespace {

/// Enough for nearly every record; a longer one is built on the heap.
constexpr std::size_t kBufferSize = 1024;

/// A string, right-aligned in a minimum of characters.
template <std::size_t Minimum>
struct Field {
    explicit Field(const char* content)
        : text(content != nullptr ? content : "(null)"), length(std::strlen(text)) {}

    std::size_t Width() const { return std::max(length, Minimum); }

    char* Put(char* out) const {
        std::memset(out, ' ', Minimum);  // a constant size avoids a call
        char* const begin = out + Width() - length;
        std::memcpy(begin, text, length);
        return begin + length;
    }

    const char* text;
    std::size_t length;
};

/// "(%5s) %20s [%5s] :: ", built by hand, because printf takes much longer.
class Prefix {
public:
    Prefix(const char* threadName, const char* loggerName, const char* levelName)
        : _thread(threadName), _logger(loggerName), _level(levelName) {}

    std::size_t Width() const { return _thread.Width() + _logger.Width() + _level.Width() + 10; }

    char* Put(char* out) const {
        *out++ = '(';
        out = PutLiteral(_thread.Put(out), ") ");
        out = PutLiteral(_logger.Put(out), " [");
        return PutLiteral(_level.Put(out), "] :: ");
    }

private:
    template <std::size_t N>
    static char* PutLiteral(char* out, const char (&text)[N]) {
        std::memcpy(out, text, N - 1);
        return out + N - 1;
    }

    Field<5> _thread;
    Field<20> _logger;
    Field<5> _level;
};

template <class Number>
char* PutNumber(char* out, char* end, Number value, int base = 10) {
    const auto result = std::to_chars(out, end, value, base);
    return result.ec == std::errc() ? result.ptr : nullptr;
}

/// Writes what vsnprintf would write for strings and integers without flags, widths and precisions, in much
/// less time. Returns the end of the message, which is not zero-terminated. Returns null for what is left to
/// vsnprintf: other conversions, null strings, and a message that does not fit.
char* PutSimply(char* out, char* end, const char* format, va_list args) {
    for (;;) {
        for (; *format != '%'; ++format) {
            if (*format == '\0') {
                return out;
            }
            if (out == end) {
                return nullptr;
            }
            *out++ = *format;
        }
        ++format;
        int longs = 0;
        for (; *format == 'l' && longs < 2; ++format) {
            ++longs;
        }
        switch (*format) {
            case 's': {
                const char* const text = longs == 0 ? va_arg(args, const char*) : nullptr;
                const std::size_t length = text != nullptr ? std::strlen(text) : 0;
                if (text == nullptr || length > static_cast<std::size_t>(end - out)) {
                    return nullptr;
                }
                std::memcpy(out, text, length);  // NOLINT(bugprone-not-null-terminated-result)
                out += length;
                break;
            }
            case 'd':
            case 'i':
                out = longs == 0   ? PutNumber(out, end, va_arg(args, int))
                      : longs == 1 ? PutNumber(out, end, va_arg(args, long))
                                   : PutNumber(out, end, va_arg(args, long long));
                break;
            case 'u':
            case 'x': {
                const int base = *format == 'x' ? 16 : 10;
                out = longs == 0   ? PutNumber(out, end, va_arg(args, unsigned int), base)
                      : longs == 1 ? PutNumber(out, end, va_arg(args, unsigned long), base)
                                   : PutNumber(out, end, va_arg(args, unsigned long long), base);
                break;
            }
            default:
                return nullptr;
        }
        if (out == nullptr) {
            return nullptr;
        }
        ++format;
    }
}

/// Writes a message, and returns its length also if it does not fit. `out` has room for a zero byte more.
ZARIP_PRINTF(3, 0)
std::size_t PutMessage(char* out, std::size_t room, const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    const char* const end = PutSimply(out, out + room, format, copy);
    va_end(copy);
    if (end != nullptr) {
        return static_cast<std::size_t>(end - out);
    }
    va_copy(copy, args);
    const int length = std::vsnprintf(out, room + 1, format, copy);
    va_end(copy);
    return static_cast<std::size_t>(std::max(length, 0));
}

/// Memory for one record: on the stack, or on the heap for a long one. *One thread at a time.*
class RecordBuffer {
public:
    /// Makes room for a record of that size; the content is lost. If there is no memory, it returns false and
    /// leaves everything as it was.
    bool Grow(std::size_t size) {
        if (size <= _size) {
            return true;
        }
        std::unique_ptr<char[]> larger(new (std::nothrow) char[size]);
        if (!larger) {
            return false;
        }
        _heap = std::move(larger);
        _size = size;
        return true;
    }

    char* GetBegin() { return _heap ? _heap.get() : _stack; }
    char* GetLast() { return GetBegin() + _size - 1; }

private:
    char _stack[kBufferSize];
    std::unique_ptr<char[]> _heap;
    std::size_t _size = kBufferSize;
};

/// Writes and flushes in one piece, so that other output to the stream comes before or after the record.
void WriteToStream(FILE* file, const char* record, std::size_t length) {
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

void WriteToDescriptor(int fd, const char* record, std::size_t length) {
    while (length > 0) {
        const ssize_t written = ::write(fd, record, length);
        if (written > 0) {
            record += written;
            length -= static_cast<std::size_t>(written);
        } else if (written == 0 || errno != EINTR) {
            return;
        }
    }
}

FILE* OpenForAppending(const char* path) {
    // "e" keeps programs that the process starts from inheriting the file.
    FILE* const file = std::fopen(path != nullptr ? path : "", "ae");
    if (file == nullptr) {
        throw osa::Exception(std::string("Failed to open file ") + (path != nullptr ? path : "") +
                             "for mode" + "a");
    }
    return file;
}

}  // namespace

FileAppender::FileAppender(const char* path)
    : _file(OpenForAppending(path)), _owned(true), _descriptor(::fileno(_file)) {}

FileAppender::FileAppender(FILE* file, bool owned) : _file(file), _owned(owned), _descriptor(-1) {
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
    RecordBuffer buffer;
    if (!buffer.Grow(prefix.Width() + 1)) {
        return;
    }
    for (;;) {
        char* const message = prefix.Put(buffer.GetBegin());
        const auto room = static_cast<std::size_t>(buffer.GetLast() - message);
        const std::size_t length = PutMessage(message, room, format, args);
        // If there is no memory for all of it, what fits is better than nothing.
        if (length <= room || !buffer.Grow(prefix.Width() + length + 1)) {
            char* const end = message + std::min(length, room);
            *end = '\n';
            Write(buffer.GetBegin(), static_cast<std::size_t>(end + 1 - buffer.GetBegin()));
            return;
        }
    }
}

void FileAppender::Write(const char* record, std::size_t length) const {
    if (_descriptor >= 0) {
        WriteToDescriptor(_descriptor, record, length);
    } else {
        WriteToStream(_file, record, length);
    }
}

StdoutAppender::StdoutAppender() : FileAppender(stdout, false) {}
StdoutAppender::~StdoutAppender() = default;

StderrAppender::StderrAppender() : FileAppender(stderr, false) {}
StderrAppender::~StderrAppender() = default;

}  // namespace zarip::core
