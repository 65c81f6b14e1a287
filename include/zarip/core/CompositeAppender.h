// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

#include <zarip/core/ILogAppender.h>

namespace zarip::core {

/// Passes every record to a list of appenders, in the order in which they were added. *Thread-safe*. Its
/// mutex is held while records are delivered and while the list changes, so appenders get one record at a
/// time.
///
/// The function `AppendV` of an appender may log and may change the list. The appender does not get the
/// records that it logs itself. If it calls `Clear`, the owned appenders are deleted when the record has been
/// delivered.
class ZARIP_EXPORT CompositeAppender : public ILogAppender {
public:
    CompositeAppender();
    CompositeAppender(const CompositeAppender&) = delete;
    CompositeAppender& operator=(const CompositeAppender&) = delete;

    /// Deletes the owned appenders.
    ~CompositeAppender() override;

    /// Adds an appender. If `owned` is true, it *takes ownership*, even if it throws; otherwise the appender
    /// must exist until it is removed. A null pointer becomes an entry that gets no records.
    void AddAppender(const ILogAppender* appender, bool owned);

    /// Removes the first entry of this appender, and does not delete the appender. Returns false if there is
    /// no such entry.
    bool RemoveAppender(const ILogAppender* appender);

    /// Deletes the owned appenders and empties the list.
    void Clear();

    void AppendV(Logger::LogLevel level, const char* threadName, const char* loggerName, const char* format,
                 va_list args) const override ZARIP_PRINTF(5, 0);

private:
    friend struct LoggerRegistry;
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::core
