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

// A member that tests the level inline and has its format checked. g++ forwards the arguments of an inlined
// ellipsis, which its own check sees; clang++ cannot, so there a template stands in front and brings its
// check along.
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

/// A named source of log records, and the process's logging as a whole: the registry of loggers, the
/// appenders that all of them share, and the default level. *Thread-safe*; usable while libraries are loaded,
/// in a forked child and until the last thread has ended.
///
/// Logging never throws, keeps `errno`, and a level that is off costs one comparison. Records of one appender
/// never interleave: one lock is held while they are delivered, so an appender that blocks (a full pipe, a
/// stuck system logger) makes every thread wait that logs or forks. Standard output that goes to a pipe
/// raises SIGPIPE once its reader is gone, unless the process ignores that signal (as one with a bus
/// connection does); the appenders then go on.
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

    /// The registry's logger of that name, made on first request with the shared appenders and the present
    /// default level. *Not owned*. After `Shutdown` the pointer stays valid and is silent for ever. Throws
    /// `Exception` "pthread_mutex_lock failed", as every function here that takes the registry's lock.
    static Logger* GetLogger(const std::string& name);

    /// A logger outside the registry; *caller owns* it. The appender is *not owned* and must outlive it.
    static Logger* CreateLogger(const std::string& name, ILogAppender* appender);

    /// Adds to the appenders that the registered loggers share. With `owned` it *takes ownership*, also when
    /// it throws; `ClearAppenders` and `Shutdown` then delete the appender.
    static void AddAppender(const ILogAppender* appender, bool owned);

    /// Removes the first entry of this appender and never deletes it; false when there is none. No record is
    /// being delivered to it any more when this returns, unless the appender itself is the caller.
    static bool RemoveAppender(const ILogAppender* appender);

    static void ClearAppenders();

    /// The level of loggers made later; with `applyToExisting` also of every registered one. Initially
    /// `kError`.
    static void SetLevelDefault(LogLevel level, bool applyToExisting);

    /// Adds appenders and sets the default level as keys of the group say: "log.stdout" and "log.syslog"
    /// ("true"), "log.file" (a path), "log.level" (a number). Appenders that exist stay, so calling it twice
    /// doubles the output.
    ///
    /// Deliberate: a given level applies to existing loggers too; without one the default becomes `kWarning`
    /// for loggers made later only, so a process may raise single loggers before it reads a configuration
    /// that names no level. Throws what `FileAppender` and `IniFile::GetInt` throw; appenders added until
    /// then stay.
    static void ConfigureLogging(const IniFile& ini, const std::string& group);

    /// Every level of every logger, to standard output alone.
    static void EnableDebugLogging();

    /// Silences every registered logger, deletes the owned appenders and puts the default level back to
    /// `kError`. The next `GetLogger` starts afresh. The loggers' few bytes are kept, since threads may still
    /// hold them.
    static void Shutdown();

    /// The level of that name ("FATAL" ... "TRACE", upper case); throws `Exception` "Invalid log level".
    static LogLevel GetLevel(const std::string& name);

    /// The name, or "UNKNOWN" for a value outside the list.
    static const char* GetLevelString(LogLevel level);

    /// Edits /etc/logrotate.conf so that it holds one entry for `logFile` behind a comment line that names
    /// `owner`: the entry there is replaced, or both lines are added at the end. Always returns 0. Processes
    /// take turns.
    ///
    /// Both texts are the program's own, without line feeds: they become part of a file that logrotate obeys
    /// as root. Both lines are cut at 99 bytes, so a path has room for 94, and a last line of the file
    /// without line feed is lost when an entry is replaced.
    static int ModifyLogRotateConf(const std::string& logFile, const std::string& owner);

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;
    virtual ~Logger();

    /// Whether records of this level come out: ask before costly arguments are built.
    bool IsEnabled(LogLevel level) const { return level <= _level.load(std::memory_order_relaxed); }

    // Trace, Debug, Information, Warning, Error(const char* format, ...) const: log as printf does when the
    // level is enabled. g++ (with -Wformat) and clang++ check the format, which is a literal, against the
    // arguments.
    ZARIP_LOG_MEMBER(Trace, kTrace)
    ZARIP_LOG_MEMBER(Debug, kDebug)
    ZARIP_LOG_MEMBER(Information, kInformation)
    ZARIP_LOG_MEMBER(Warning, kWarning)
    ZARIP_LOG_MEMBER(Error, kError)

    /// Logs without looking at the level. The record carries the name of the calling `osa::Thread`, or
    /// "!!UNKNOWN!!". What an appender throws is dropped. An appender that logs while it handles a record
    /// does not get that one itself; the others do.
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
