// SPDX-License-Identifier: MIT

#pragma once

#include "zarip/core/ILogAppender.h"

namespace zarip::core {

/// Marks an appender as running on this thread for the length of a scope. An appender that logs would
/// otherwise get its own record, log again, and so on without end.
class AppenderGuard {
public:
    explicit AppenderGuard(const ILogAppender* appender) : _appender(appender), _outer(t_innermost) {
        t_innermost = this;
    }
    AppenderGuard(const AppenderGuard&) = delete;
    AppenderGuard& operator=(const AppenderGuard&) = delete;
    ~AppenderGuard() { t_innermost = _outer; }

    /// For an appender that only passes records on, and marks each appender to which it passes them.
    static void Exempt(const ILogAppender* appender) {
        if (t_innermost != nullptr && t_innermost->_appender == appender) {
            t_innermost->_appender = nullptr;
        }
    }

    /// False for null, and for an appender that runs on this thread already.
    bool MayRun() const {
        for (const AppenderGuard* guard = _outer; guard != nullptr; guard = guard->_outer) {
            if (guard->_appender == _appender) {
                return false;
            }
        }
        return _appender != nullptr;
    }

private:
    static inline thread_local AppenderGuard* t_innermost __attribute__((tls_model("initial-exec"))) =
        nullptr;

    const ILogAppender* _appender;
    AppenderGuard* _outer;
};

}  // namespace zarip::core
