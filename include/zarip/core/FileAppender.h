// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <cstdio>

#include <zarip/core/ILogAppender.h>

namespace zarip::core {

/// Writes records to a stdio stream, one line each, and flushes after every one:
/// "(thread) logger [LEVEL] :: message", the names right-aligned in at least 5, 20 and 5 characters.
/// A record goes out in one piece, in order with what others print to the same stream. *Thread-safe*.
class ZARIP_EXPORT FileAppender : public ILogAppender {
public:
    /// Appends to the file, which is created when it is missing and not inherited by other programs.
    /// Throws `Exception` "Failed to open file " + path + "for modea" (deliberately without the two spaces:
    /// scripts look for the text as it has always been).
    explicit FileAppender(const char* path);

    /// With `owned` the destructor closes the stream; otherwise it must outlive the appender.
    /// Throws `Exception` "pFile must not be NULL".
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
    /// Of a file opened here, whose stream nobody else can print to: records go past it. -1 for a given
    /// stream.
    int _descriptor;
};

}  // namespace zarip::core
