// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/core/ILogAppender.h>

namespace zarip::core {

/// Sends records to the system logger as "(thread) logger [LEVEL] :: message" with facility daemon. The names
/// are cut and padded to exactly 5, 20 and 5 characters, and the whole record is cut after 1023.
/// *Thread-safe*.
///
/// The system logger has one identification for the whole process: that of the youngest existing appender.
/// When that appender is destroyed, the one before counts again.
class ZARIP_EXPORT SyslogAppender : public ILogAppender {
public:
    /// The identification is the group's "log.syslog.ident" or, without one, the group's name.
    SyslogAppender(const IniFile& ini, const std::string& group);
    SyslogAppender(const SyslogAppender&) = delete;
    SyslogAppender& operator=(const SyslogAppender&) = delete;

    /// Closes the system logger if this was the last appender.
    ~SyslogAppender() override;

    void AppendV(Logger::LogLevel level, const char* threadName, const char* loggerName, const char* format,
                 va_list args) const override ZARIP_PRINTF(5, 0);

private:
    std::string _ident;
};

}  // namespace zarip::core
