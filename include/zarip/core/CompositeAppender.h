// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

#include <zarip/core/ILogAppender.h>

namespace zarip::core {

/// Passes every record to a list of appenders, in the order in which they were added. *Thread-safe*: its
/// mutex is held while records are delivered and while the list changes, so appenders get one record at a
/// time.
///
/// An appender may log and may change the list from within `AppendV`. It does not get its own records. An
/// owned appender that is removed there is deleted when the record has been delivered.
class ZARIP_EXPORT CompositeAppender : public ILogAppender {
public:
    CompositeAppender();
    CompositeAppender(const CompositeAppender&) = delete;
    CompositeAppender& operator=(const CompositeAppender&) = delete;

    /// Deletes the owned appenders.
    ~CompositeAppender() override;

    /// With `owned` it *takes ownership*, also when it throws; otherwise the appender must outlive its entry.
    /// A null pointer is kept as an entry and gets no records.
    void AddAppender(const ILogAppender* appender, bool owned);

    /// Removes the first entry of this appender and never deletes the appender. False if there is no such
    /// entry.
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
