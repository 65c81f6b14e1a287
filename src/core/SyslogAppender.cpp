// SPDX-License-Identifier: MIT

#include "zarip/core/SyslogAppender.h"

#include <pthread.h>
#include <syslog.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "zarip/core/IniFile.h"

namespace zarip::core {

namespace {

constexpr int kPriorities[] = {LOG_EMERG, LOG_ALERT, LOG_CRIT, LOG_ERR, LOG_WARNING, LOG_NOTICE, LOG_INFO};

int PriorityOf(Logger::LogLevel level) {
    const auto index = static_cast<unsigned int>(level);
    return LOG_DAEMON | (index < std::size(kPriorities) ? kPriorities[index] : LOG_DEBUG);
}

/// The appenders that have opened the system logger. The system keeps the pointer to an identification, even
/// after other code has closed the logger, so the identifications are never deleted.
class Identifications {
public:
    static void Open(const SyslogAppender* appender, const std::string& ident) {
        const Lock lock;
        State& state = Get();
        const auto kept = state.texts.insert(ident).first;
        state.open.push_back({appender, kept->c_str()});
        ::openlog(kept->c_str(), LOG_CONS, LOG_DAEMON);
    }

    static void Close(const SyslogAppender* appender) {
        const Lock lock;
        std::vector<User>& open = Get().open;
        const bool wasYoungest = !open.empty() && open.back().appender == appender;
        open.erase(std::remove_if(open.begin(), open.end(),
                                  [=](const User& user) { return user.appender == appender; }),
                   open.end());
        if (open.empty()) {
            ::closelog();
        } else if (wasYoungest) {
            ::closelog();
            ::openlog(open.back().ident, LOG_CONS, LOG_DAEMON);
        }
    }

private:
    struct User {
        const SyslogAppender* appender;
        const char* ident;
    };
    struct State {
        std::set<std::string> texts;
        std::vector<User> open;
    };
    struct Lock {
        Lock() { ::pthread_mutex_lock(&s_mutex); }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;
        ~Lock() { ::pthread_mutex_unlock(&s_mutex); }
    };

    static State& Get() {
        static auto* const state = new State;
        return *state;
    }

    static inline pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER;
};

}  // namespace

SyslogAppender::SyslogAppender(const IniFile& ini, const std::string& group)
    : _ident(ini.GetValueOrDefault(group, "log.syslog.ident", group)) {
    Identifications::Open(this, _ident);
}

SyslogAppender::~SyslogAppender() {
    Identifications::Close(this);
}

void SyslogAppender::AppendV(Logger::LogLevel level, const char* threadName, const char* loggerName,
                             const char* format, va_list args) const {
    char buffer[1024];
    const int prefix = std::snprintf(buffer, sizeof buffer, "(%5.5s) %20.20s [%5.5s] :: ", threadName,
                                     loggerName, Logger::GetLevelString(level));
    const std::size_t used = prefix > 0 ? static_cast<std::size_t>(prefix) : 0;
    va_list copy;
    va_copy(copy, args);
    if (std::vsnprintf(buffer + used, sizeof buffer - used, format, copy) < 0) {
        buffer[used] = '\0';
    }
    va_end(copy);
    ::syslog(PriorityOf(level), "%s\n", buffer);
}

}  // namespace zarip::core
