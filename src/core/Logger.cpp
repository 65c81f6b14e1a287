// SPDX-License-Identifier: MIT

#include "zarip/core/Logger.h"

#include <cxxabi.h>
#include <pthread.h>

#include <cerrno>
#include <iterator>
#include <map>
#include <memory>
#include <vector>

#include "core/AppenderGuard.h"
#include "core/CompositeAppenderImpl.h"
#include "core/LogRotate.h"
#include "osa/CurrentThread.h"
#include "zarip/core/CompositeAppender.h"
#include "zarip/core/FileAppender.h"
#include "zarip/core/IniFile.h"
#include "zarip/core/NullAppender.h"
#include "zarip/core/StdoutAppender.h"
#include "zarip/core/SyslogAppender.h"
#include "zarip/osa/Exception.h"

namespace zarip::core {

namespace {

constexpr const char* kLevelNames[] = {"FATAL",  "ALERT", "CRIT",  "ERROR", "WARN",
                                       "NOTICE", "INFO",  "DEBUG", "TRACE"};

constexpr const char kUnknownThread[] = "!!UNKNOWN!!";

class RegistryLock {
public:
    RegistryLock() {
        if (::pthread_mutex_lock(&s_mutex) != 0) {
            throw osa::Exception("pthread_mutex_lock failed");
        }
    }
    RegistryLock(const RegistryLock&) = delete;
    RegistryLock& operator=(const RegistryLock&) = delete;
    ~RegistryLock() { ::pthread_mutex_unlock(&s_mutex); }

    /// It is ready before any code of this library runs, because loggers are requested while libraries are
    /// loaded.
    static inline pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER;
};

std::atomic<int> s_defaultLevel{Logger::kError};

}  // namespace

/// The state of the process's logging. It is made on first use and never destroyed, because threads may log
/// until the process has ended. `RegistryLock` guards its members. It is never held while the root's mutex is
/// taken or an appender runs, because an appender may look up loggers.
struct LoggerRegistry {
    CompositeAppender root;
    NullAppender silence;
    std::map<std::string, std::unique_ptr<Logger>> loggers;
    std::vector<std::unique_ptr<Logger>> retired;

    static LoggerRegistry* s_instance;

    /// The caller holds `RegistryLock`.
    static LoggerRegistry& Get() {
        if (s_instance == nullptr) {
            auto made = std::make_unique<LoggerRegistry>();
            ::pthread_atfork(&BeforeFork, &AfterForkInParent, &AfterForkInChild);
            s_instance = made.release();
        }
        return *s_instance;
    }

    static CompositeAppender& Root() {
        const RegistryLock lock;
        return Get().root;
    }

    static Logger* Find(const std::string& name) {
        const RegistryLock lock;
        LoggerRegistry& registry = Get();
        std::unique_ptr<Logger>& entry = registry.loggers[name];
        if (!entry) {
            try {
                entry.reset(new Logger(name, &registry.root, s_defaultLevel));
            } catch (...) {
                registry.loggers.erase(name);
                throw;
            }
        }
        return entry.get();
    }

    void Retire() {
        retired.reserve(retired.size() + loggers.size());
        for (auto& entry : loggers) {
            entry.second->_appender = &silence;
            retired.push_back(std::move(entry.second));
        }
        loggers.clear();
    }

    // A forked child must be able to log even if another thread held a lock at the fork, so both locks are
    // taken for the time of the fork. The root's lock is taken first, because an appender that runs under it
    // may need the registry's lock.
    static void BeforeFork() {
        s_instance->root._impl->LockForFork();
        ::pthread_mutex_lock(&RegistryLock::s_mutex);
    }
    static void AfterForkInParent() {
        ::pthread_mutex_unlock(&RegistryLock::s_mutex);
        s_instance->root._impl->UnlockInParent();
    }
    static void AfterForkInChild() {
        ::pthread_mutex_unlock(&RegistryLock::s_mutex);
        s_instance->root._impl->UnlockInChild();
    }
};

LoggerRegistry* LoggerRegistry::s_instance = nullptr;

Logger::Logger(const std::string& name, const ILogAppender* appender, int level)
    : _level(level), _name(name), _appender(appender) {}

Logger::~Logger() = default;

Logger* Logger::GetLogger(const std::string& name) {
    return LoggerRegistry::Find(name);
}

Logger* Logger::CreateLogger(const std::string& name, ILogAppender* appender) {
    return new Logger(name, appender, s_defaultLevel);
}

void Logger::AddAppender(const ILogAppender* appender, bool owned) {
    std::unique_ptr<const ILogAppender> holder(owned ? appender : nullptr);
    CompositeAppender& root = LoggerRegistry::Root();
    static_cast<void>(holder.release());
    root.AddAppender(appender, owned);
}

bool Logger::RemoveAppender(const ILogAppender* appender) {
    return LoggerRegistry::Root().RemoveAppender(appender);
}

void Logger::ClearAppenders() {
    LoggerRegistry::Root().Clear();
}

void Logger::SetLevelDefault(LogLevel level, bool applyToExisting) {
    s_defaultLevel = level;
    if (applyToExisting) {
        const RegistryLock lock;
        for (const auto& entry : LoggerRegistry::Get().loggers) {
            entry.second->_level = level;
        }
    }
}

void Logger::ConfigureLogging(const IniFile& ini, const std::string& group) {
    if (ini.GetValueOrDefault(group, "log.stdout") == "true") {
        AddAppender(new StdoutAppender, true);
    }
    if (ini.HasValue(group, "log.file")) {
        AddAppender(new FileAppender(ini.GetValue(group, "log.file").c_str()), true);
    }
    if (ini.GetValueOrDefault(group, "log.syslog") == "true") {
        AddAppender(new SyslogAppender(ini, group), true);
    }
    if (ini.HasValue(group, "log.level")) {
        SetLevelDefault(static_cast<LogLevel>(ini.GetInt(group, "log.level")), true);
    } else {
        // Deliberate: existing loggers keep their level. A process may raise single loggers before it reads a
        // configuration that names no level.
        SetLevelDefault(kWarning, false);
    }
}

void Logger::EnableDebugLogging() {
    ClearAppenders();
    IniFile ini;
    ini.SetValue("log", "log.stdout", "true");
    ini.SetValue("log", "log.level", "10");
    ConfigureLogging(ini, "log");
}

void Logger::Shutdown() {
    CompositeAppender* root = nullptr;
    {
        const RegistryLock lock;
        LoggerRegistry& registry = LoggerRegistry::Get();
        registry.Retire();
        s_defaultLevel = kError;
        root = &registry.root;
    }
    root->Clear();
}

Logger::LogLevel Logger::GetLevel(const std::string& name) {
    int level = kFatal;
    for (const char* const known : kLevelNames) {
        if (name == known) {
            return static_cast<LogLevel>(level);
        }
        ++level;
    }
    throw osa::Exception("Invalid log level");
}

const char* Logger::GetLevelString(LogLevel level) {
    const auto index = static_cast<unsigned int>(level);
    return index < std::size(kLevelNames) ? kLevelNames[index] : "UNKNOWN";
}

int Logger::ModifyLogRotateConf(const std::string& logFile, const std::string& owner) {
    EditLogRotateConf(logFile, owner, "/etc/logrotate.conf", "/etc/logrotateTemp.conf");
    return 0;
}

void Logger::LogMessage(LogLevel level, const char* format, ...) const {
    va_list args;
    va_start(args, format);
    LogMessageV(level, format, args);
    va_end(args);
}

void Logger::LogMessageV(LogLevel level, const char* format, va_list args) const {
    const int savedErrno = errno;
    const char* const threadName = osa::CurrentThreadName();
    try {
        const ILogAppender* const appender = _appender.load(std::memory_order_acquire);
        AppenderGuard guard(appender);
        if (guard.MayRun()) {
            appender->AppendV(level, threadName != nullptr ? threadName : kUnknownThread, _name.c_str(),
                              format, args);
        }
    } catch (const abi::__forced_unwind&) {
        throw;  // the thread is being cancelled: that cannot be dropped
    } catch (...) {
        // Deliberate: a caller that logs must not fail because of it.
    }
    errno = savedErrno;
}

}  // namespace zarip::core
