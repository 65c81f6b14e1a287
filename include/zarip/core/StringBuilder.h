// SPDX-License-Identifier: MIT

#pragma once

#include <cstdarg>
#include <sstream>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::core {

/// Collects text that is formatted as printf does. One thread at a time.
class ZARIP_EXPORT StringBuilder {
public:
    StringBuilder();

    /// Begins with `initial`; what follows is appended to it.
    explicit StringBuilder(const std::string& initial);

    StringBuilder(const StringBuilder&) = delete;
    StringBuilder& operator=(const StringBuilder&) = delete;
    ~StringBuilder();

    /// Append and return the builder, so that calls chain. Text that cannot be formatted (a character outside
    /// the locale's character set) appends nothing.
    StringBuilder& printf(const char* format, ...) ZARIP_PRINTF(2, 3);
    StringBuilder& vprintf(const char* format, va_list args) ZARIP_PRINTF(2, 0);

    std::string ToString() const;

private:
    std::ostringstream _stream;
};

}  // namespace zarip::core
