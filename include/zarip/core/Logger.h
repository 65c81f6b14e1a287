// SPDX-License-Identifier: MIT

#pragma once

#include <atomic>
#include <cstdarg>
#include <string>

#include <zarip/core/LogFormat.h>
#include <zarip/osa/Export.h>

namespace zarip::core {

class ILogAppender;
class IniFile;

// A member that tests the level inline and whose format is checked by the compiler. g++ forwards the
// arguments of an inlined ellipsis, which its own check sees. clang++ cannot do that, so there the member is
// a template with a check of its own.
#if defined(__clang__)
#define ZARIP_LOG_MEMBER(name, level)                                                                 \
    template <class... Arguments>                                                                     \
    __attribute__((always_inline)) inline void name(const char* format, Arguments... arguments) const \
        __attribute__((diagnose_if(!internal::FormatMatches<Arguments...>(format),                    \
                                   "the format does not match the arguments", "error")))              \
        __attribute__((                                                                               \
            diagnose_if(!__builtin_constant_p(*format), "the format is not a literal", "warning"))) { \
        if (IsEnabled(level)) {                                                                       \
            LogMessage(level, format, arguments...);                                                  \
        }                                                                                             \
    }
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wgcc-compat"
#pragma clang diagnostic ignored "-Wformat-nonliteral"
#pragma clang diagnostic ignored "-Wformat-security"
#else
#define ZARIP_LOG_MEMBER(name, level)                                                                   \
    __attribute__((always_inline)) ZARIP_PRINTF(2, 3) inline void name(const char* format, ...) const { \
        if (IsEnabled(level)) {                                                                         \
            LogMessage(level, format, __builtin_va_arg_pack());                                         \
        }                                                                                               \
    }
#endif

/// A named source of log records. Its static functions manage the logging of the whole process: the registry
/// of loggers, the appenders that all of them share, and the default level. *Thread-safe*. Logging works
/// while libraries are being loaded, in a forked child, and until the last thread has ended.
///
/// Logging never throws and does not change `errno`. A record whose level is off costs one comparison.
/// Records of one appender never interleave. One lock is held while records are delivered. So if an appender
/// blocks, for example on a full pipe or a stuck system logger, every thread that logs or forks waits. If
/// standard output is a pipe without a reader, writing raises SIGPIPE. If the process ignores that signal, as
/// a process with a bus connection does, the other appenders still get the record.
class ZARIP_EXPORT Logger {
public:
    /// A smaller value is more severe. As a threshold, any value from 9 on is allowed, too, and means that
    /// every record is written.
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

    /// Returns the logger of that name, *not owned*. The first request makes it, with the shared appenders
    /// and the current default level. After `Shutdown` the pointer stays valid, but the logger writes
    /// nothing. Like every function that takes the lock of the registry, it throws `Exception`
    /// "pthread_mutex_lock failed".
    static Logger* GetLogger(const std::string& name);

    /// Makes a logger that is not in the registry; the *caller owns* it. The appender is *not owned* and must
    /// outlive the logger.
    static Logger* CreateLogger(const std::string& name, ILogAppender* appender);

    /// Adds an appender to those that the registered loggers share. If `owned` is true, it *takes ownership*,
    /// even if it throws; `ClearAppenders` and `Shutdown` then delete the appender.
    static void AddAppender(const ILogAppender* appender, bool owned);

    /// Removes the first entry of this appender, and does not delete the appender. Returns false if there is
    /// no such entry. When the function returns, no record is being delivered to the appender, unless the
    /// appender itself is the caller.
    static bool RemoveAppender(const ILogAppender* appender);

    static void ClearAppenders();

    /// Sets the level of loggers that are made later. If `applyToExisting` is true, it also sets the level of
    /// every registered logger. The default level is `kError` at first.
    static void SetLevelDefault(LogLevel level, bool applyToExisting);

    /// Adds appenders and sets the default level. The keys of the group are "log.stdout" and "log.syslog" (on
    /// if "true"), "log.file" (a path) and "log.level" (a number). Existing appenders stay, so a second call
    /// doubles the output.
    ///
    /// Deliberate: if the group has a level, it applies to existing loggers, too. If not, the default level
    /// becomes `kWarning` for later loggers only. So a process may raise the level of single loggers before
    /// it reads a configuration without a level. Throws what `FileAppender` and `IniFile::GetInt` throw;
    /// appenders that were added before stay.
    static void ConfigureLogging(const IniFile& ini, const std::string& group);

    /// Logs every level of every logger to standard output, and removes all other appenders.
    static void EnableDebugLogging();

    /// Silences every registered logger, deletes the owned appenders and puts the default level back to
    /// `kError`. The next `GetLogger` makes a new logger. The memory of the old loggers is kept, because
    /// threads may still use them.
    static void Shutdown();

    /// Returns the level of that name ("FATAL" to "TRACE", in upper case). Throws `Exception` "Invalid log
    /// level".
    static LogLevel GetLevel(const std::string& name);

    /// Returns the name of a level, or "UNKNOWN" for any other value.
    static const char* GetLevelString(LogLevel level);

    /// Edits /etc/logrotate.conf so that an entry for `logFile` follows a comment line that names `owner`. If
    /// the comment exists, the line after it is replaced; otherwise both lines are added at the end. Always
    /// returns 0. If several processes call this at the same time, they take turns.
    ///
    /// Both strings must come from the program itself and contain no line feeds, because logrotate executes
    /// this file as root. Both lines are cut at 99 bytes, so a path can have 94 bytes. If the last line of
    /// the file has no line feed, it is lost when an entry is replaced.
    static int ModifyLogRotateConf(const std::string& logFile, const std::string& owner);

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;
    virtual ~Logger();

    /// Returns whether records of this level are written. Check it before you build costly arguments.
    bool IsEnabled(LogLevel level) const { return level <= _level.load(std::memory_order_relaxed); }

    // Trace, Debug, Information, Warning, Error(const char* format, ...) const: log as printf does when the
    // level is enabled. g++ (with -Wformat) and clang++ check the format, which is a literal, against the
    // arguments.
    ZARIP_LOG_MEMBER(Trace, kTrace)
    ZARIP_LOG_MEMBER(Debug, kDebug)
    ZARIP_LOG_MEMBER(Information, kInformation)
    ZARIP_LOG_MEMBER(Warning, kWarning)
    ZARIP_LOG_MEMBER(Error, kError)

    /// Logs a record whatever its level. The record contains the name of the calling `osa::Thread`, or
    /// "!!UNKNOWN!!". Exceptions of appenders are dropped. If an appender logs while it handles a record, the
    /// other appenders get the new record, and the appender itself does not.
    void LogMessageV(LogLevel level, const char* format, va_list args) const ZARIP_PRINTF(3, 0);

private:
    friend struct LoggerRegistry;

    Logger(const std::string& name, const ILogAppender* appender, int level);

#if defined(__clang__)
    void LogMessage(LogLevel level, const char* format, ...) const ZARIP_PRINTF(3, 4);
#else
    // g++ would ask for a literal in the members above, which have been checked by then.
    void LogMessage(LogLevel level, const char* format, ...) const;
#endif

    std::atomic<int> _level;
    std::string _name;
    std::atomic<const ILogAppender*> _appender;
};

}  // namespace zarip::core

#undef ZARIP_LOG_MEMBER
#if defined(__clang__)
#pragma clang diagnostic pop
#endif
