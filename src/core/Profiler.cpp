// SPDX-License-Identifier: MIT

#include "zarip/core/Profiler.h"

#include <exception>

#include "zarip/core/Logger.h"
#include "zarip/osa/Time.h"

namespace zarip::core {

Profiler::Profiler(const Logger* logger, const char* name)
    : _logger(logger), _name(name != nullptr ? name : "") {
    if (IsOn()) {
        _logger->Trace("{BEGIN: %s}", _name);
        osa::TimeMonotonic(_stopwatch.start);
    }
}

Profiler::~Profiler() {
    if (!IsOn()) {
        return;
    }
    osa::TimeMonotonic(_stopwatch.stop);
    try {
        const double seconds = _stopwatch.Read();
        _logger->Trace("{END: %s | %.6f sec}", _name, seconds);
    } catch (const std::exception&) {
        _logger->Trace("{END: %s | Failed to read stopwatch", _name);
    }
}

bool Profiler::IsOn() const {
    return _logger != nullptr && _logger->IsEnabled(Logger::kTrace);
}

}  // namespace zarip::core
