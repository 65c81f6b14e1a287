// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <cstdio>

#include <zarip/core/ILogAppender.h>

namespace zarip::core {

/// Writes records to a stdio stream, one line each, and flushes after every one: "(thread) logger [LEVEL] ::
/// message", the names right-aligned in at least 5, 20 and 5 characters. A record is written in one piece, in
/// order with other output to the same stream. *Thread-safe*.
class ZARIP_EXPORT FileAppender : public ILogAppender {
public:
    /// Appends to the file, which is created if it is missing. Programs that the process starts do not
    /// inherit it. Throws `Exception` "Failed to open file " + path + "for modea" (deliberately without the
    /// two spaces: scripts search for the message in this form).
    explicit FileAppender(const char* path);

    /// With `owned` the destructor closes the stream; otherwise it must outlive the appender. Throws
    /// `Exception` "pFile must not be NULL".
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
    /// The descriptor of a file that this object has opened. No other code can print to the stream, so
    /// records are written to the descriptor directly. -1 for a given stream.
    int _descriptor;
};

}  // namespace zarip::core
