// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/core/ILogAppender.h>

namespace zarip::core {

/// Sends records to the system logger as "(thread) logger [LEVEL] :: message", with the facility "daemon".
/// The three names are cut or padded to exactly 5, 20 and 5 characters, and the whole record is cut after
/// 1023 characters. *Thread-safe*.
///
/// The system logger has one identification for the whole process: that of the appender that was made last.
/// When this appender is destroyed, that of the previous one is used again.
class ZARIP_EXPORT SyslogAppender : public ILogAppender {
public:
    /// Uses the value "log.syslog.ident" of the group as the identification, or the name of the group if
    /// there is no such value.
    SyslogAppender(const IniFile& ini, const std::string& group);
    SyslogAppender(const SyslogAppender&) = delete;
    SyslogAppender& operator=(const SyslogAppender&) = delete;

    /// Closes the connection to the system logger if this was the last appender.
    ~SyslogAppender() override;

    void AppendV(Logger::LogLevel level, const char* threadName, const char* loggerName, const char* format,
                 va_list args) const override ZARIP_PRINTF(5, 0);

private:
    std::string _ident;
};

}  // namespace zarip::core
