// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/core/ILogAppender.h>

namespace zarip::core {

/// Discards all records. *Thread-safe*.
class ZARIP_EXPORT NullAppender : public ILogAppender {
public:
    NullAppender();
    ~NullAppender() override;

    void AppendV(Logger::LogLevel level, const char* threadName, const char* loggerName, const char* format,
                 va_list args) const override ZARIP_PRINTF(5, 0);
};

}  // namespace zarip::core
