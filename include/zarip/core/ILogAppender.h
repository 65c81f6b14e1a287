// SPDX-License-Identifier: MIT

#pragma once

#include <cstdarg>

#include <zarip/core/Logger.h>
#include <zarip/osa/Export.h>

namespace zarip::core {

/// A destination of log records. An implementation is *thread-safe*, or is used through one
/// `CompositeAppender` only, which passes it one record at a time.
class ZARIP_EXPORT ILogAppender {
public:
    /// Writes one record. `args` is a copy for this call. An exception is caught and dropped by the code that
    /// delivers the record.
    virtual void AppendV(Logger::LogLevel level, const char* threadName, const char* loggerName,
                         const char* format, va_list args) const ZARIP_PRINTF(5, 0) = 0;

    virtual ~ILogAppender() = default;
};

}  // namespace zarip::core
