// SPDX-License-Identifier: MIT

#pragma once

#include <cstdarg>

#include <zarip/core/Logger.h>
#include <zarip/osa/Export.h>

namespace zarip::core {

/// Where log records go. An implementation is *thread-safe*, or is reached through one `CompositeAppender`
/// only, which hands it one record at a time.
class ZARIP_EXPORT ILogAppender {
public:
    /// Writes one record. `args` belongs to this call alone. The code that delivers the record drops what
    /// this throws.
    virtual void AppendV(Logger::LogLevel level, const char* threadName, const char* loggerName,
                         const char* format, va_list args) const ZARIP_PRINTF(5, 0) = 0;

    virtual ~ILogAppender() = default;
};

}  // namespace zarip::core
