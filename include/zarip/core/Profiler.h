// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/core/Stopwatch.h>
#include <zarip/osa/Export.h>

namespace zarip::core {

class Logger;

/// Logs the beginning, the end and the duration of a scope at trace level. If that level is off, it costs one
/// comparison. *One thread at a time.*
class ZARIP_EXPORT Profiler {
public:
    /// Logs "{BEGIN: <name>}".
    /// @param logger  *not owned*, must outlive the object; may be null.
    /// @param name  *not owned*, must outlive the object.
    Profiler(const Logger* logger, const char* name);
    Profiler(const Profiler&) = delete;
    Profiler& operator=(const Profiler&) = delete;

    /// Logs "{END: <name> | <seconds> sec}". If the level was off at the beginning and is on now, it logs
    /// "{END: <name> | Failed to read stopwatch". Deliberate: that line has no closing brace, because tools
    /// read it in this form.
    ~Profiler();

private:
    bool IsOn() const;

    const Logger* _logger;
    const char* _name;
    Stopwatch _stopwatch;
};

}  // namespace zarip::core
