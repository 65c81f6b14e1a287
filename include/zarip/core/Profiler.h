// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/core/Stopwatch.h>
#include <zarip/osa/Export.h>

namespace zarip::core {

class Logger;

/// Logs begin, end and duration of a scope at trace level; costs a comparison when that level is off. *One
/// thread at a time.*
class ZARIP_EXPORT Profiler {
public:
    /// Logs "{BEGIN: <name>}".
    /// @param logger  *not owned*, must outlive the object; may be null.
    /// @param name  *not owned*, must outlive the object.
    Profiler(const Logger* logger, const char* name);
    Profiler(const Profiler&) = delete;
    Profiler& operator=(const Profiler&) = delete;

    /// Logs "{END: <name> | <seconds> sec}". When the level was off at the begin and is on now it is "{END:
    /// <name> | Failed to read stopwatch", deliberately without a brace: tools that read these lines know it
    /// so.
    ~Profiler();

private:
    bool IsOn() const;

    const Logger* _logger;
    const char* _name;
    Stopwatch _stopwatch;
};

}  // namespace zarip::core
