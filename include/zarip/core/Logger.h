#pragma once

#include <cstdarg>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::core {

class ILogAppender;
class IniFile;

class ZARIP_EXPORT Logger {
public:
    /// Smaller is more severe. Any value from 9 on is legal as a threshold and lets everything through.
    enum LogLevel : int {
        kFatal = 0,
        kAlert = 1,
        kCritical = 2,
        kError = 3,
        kWarning = 4,
        kNotice = 5,
        kInformation = 6,
        kDebug = 7,
        kTrace = 8,
    };

    static Logger* GetLogger(const std::string& name);

    virtual ~Logger();

    bool IsEnabled(LogLevel level) const { return level <= _level; }

    void Trace(const char* format, ...) const ZARIP_PRINTF(2, 3);
    void Debug(const char* format, ...) const ZARIP_PRINTF(2, 3);
    void Information(const char* format, ...) const ZARIP_PRINTF(2, 3);
    void Warning(const char* format, ...) const ZARIP_PRINTF(2, 3);
    void Error(const char* format, ...) const ZARIP_PRINTF(2, 3);
    void LogMessageV(LogLevel level, const char* format, va_list args) const ZARIP_PRINTF(3, 0);

private:
    LogLevel _level;
    std::string _name;
    const ILogAppender* _appender;
};

}  // namespace zarip::core
