// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <cstdio>

#include <zarip/core/ILogAppender.h>

namespace zarip::core {

/// Writes each record to a stdio stream as a line "(thread) logger [LEVEL] :: message", and flushes the
/// stream. The three names are right-aligned in at least 5, 20 and 5 characters. A record is written in one
/// piece, in order with other output to the same stream. *Thread-safe*.
class ZARIP_EXPORT FileAppender : public ILogAppender {
public:
    /// Appends to a file, which is created if it does not exist. Programs that the process starts do not
    /// inherit its descriptor. Throws `Exception` "Failed to open file " + path + "for modea". Deliberate:
    /// this message lacks two spaces, because scripts search for it in this form.
    explicit FileAppender(const char* path);

    /// Writes to an open stream. If `owned` is true, the destructor closes the stream; otherwise the stream
    /// must outlive the appender. Throws `Exception` "pFile must not be NULL".
    FileAppender(FILE* file, bool owned);

    FileAppender(const FileAppender&) = delete;
    FileAppender& operator=(const FileAppender&) = delete;
    ~FileAppender() override;

    void AppendV(Logger::LogLevel level, const char* threadName, const char* loggerName, const char* format,
                 va_list args) const override ZARIP_PRINTF(5, 0);

private:
    void Write(const char* record, std::size_t length) const;

    FILE* _file;
    bool _owned;
    /// The descriptor of a file that this object has opened, or -1 for a stream that was passed to the
    /// constructor. No other code can print to such a file's stream, so records are written to the descriptor
    /// directly.
    int _descriptor;
};

}  // namespace zarip::core
