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

/// A named source of log records. Its static functions are the logging of the whole process: the registry of
/// loggers, the appenders that all of them share, and the default level. *Thread-safe*. It works while
/// libraries are loaded, in a forked child and until the last thread has ended.
///
/// Logging never throws and keeps `errno`, and a level that is off costs one comparison. Records of one
/// appender never interleave. One lock is held while records are delivered, so if an appender blocks (a full
/// pipe, a stuck system logger), every thread that logs or forks waits. If standard output is a pipe whose
/// reader is gone, writing raises SIGPIPE, unless the process ignores that signal (as one with a bus
/// connection does); the other appenders then still get the record.
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
    /// default level. *Not owned*. After `Shutdown` the pointer stays valid, but the logger writes nothing.
    /// Throws `Exception` "pthread_mutex_lock failed", as every function here that takes the registry's lock.
    static Logger* GetLogger(const std::string& name);

    /// A logger outside the registry; *caller owns* it. The appender is *not owned* and must outlive it.
    static Logger* CreateLogger(const std::string& name, ILogAppender* appender);

    /// Adds to the appenders that the registered loggers share. With `owned` it *takes ownership*, also when
    /// it throws; `ClearAppenders` and `Shutdown` then delete the appender.
    static void AddAppender(const ILogAppender* appender, bool owned);

    /// Removes the first entry of this appender and never deletes the appender. False if there is no such
    /// entry. When the function returns, no record is being delivered to the appender, unless the appender
    /// itself is the caller.
    static bool RemoveAppender(const ILogAppender* appender);

    static void ClearAppenders();

    /// Sets the level of loggers that are made later; with `applyToExisting` also that of every registered
    /// one. Initially it is `kError`.
    static void SetLevelDefault(LogLevel level, bool applyToExisting);

    /// Adds appenders and sets the default level by the keys of the group: "log.stdout" and "log.syslog"
    /// ("true"), "log.file" (a path), "log.level" (a number). Existing appenders stay, so calling it twice
    /// doubles the output.
    ///
    /// Deliberate: a given level applies to existing loggers, too. Without one, the default becomes
    /// `kWarning` for later loggers only, so a process may raise the level of single loggers before it reads
    /// a configuration without a level. Throws what `FileAppender` and `IniFile::GetInt` throw; appenders
    /// added until then stay.
    static void ConfigureLogging(const IniFile& ini, const std::string& group);

    /// Logs every level of every logger to standard output, and removes all other appenders.
    static void EnableDebugLogging();

    /// Silences every registered logger, deletes the owned appenders and puts the default level back to
    /// `kError`. The next `GetLogger` makes a new logger. The memory of the old loggers is kept, because
    /// threads may still use them.
    static void Shutdown();

    /// The level of that name ("FATAL" ... "TRACE", upper case); throws `Exception` "Invalid log level".
    static LogLevel GetLevel(const std::string& name);

    /// The name, or "UNKNOWN" for a value outside the list.
    static const char* GetLevelString(LogLevel level);

    /// Edits /etc/logrotate.conf so that it holds one entry for `logFile` after a comment line that names
    /// `owner`. The entry there is replaced, or both lines are added at the end. Always returns 0. Processes
    /// take turns.
    ///
    /// Both strings must be the program's own and without line feeds, because they become part of a file that
    /// logrotate obeys as root. Both lines are cut at 99 bytes, so a path has room for 94, and a last line of
    /// the file without line feed is lost when an entry is replaced.
    static int ModifyLogRotateConf(const std::string& logFile, const std::string& owner);

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;
    virtual ~Logger();

    /// Whether records of this level are written. Check it before building costly arguments.
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
