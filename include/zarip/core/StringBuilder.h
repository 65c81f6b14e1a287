// SPDX-License-Identifier: MIT

#pragma once

#include <cstdarg>
#include <sstream>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::core {

/// Builds a string from parts that are formatted as by printf. *One thread at a time.*
class ZARIP_EXPORT StringBuilder {
public:
    StringBuilder();

    /// Makes a builder that contains `initial`; the parts are appended to it.
    explicit StringBuilder(const std::string& initial);

    StringBuilder(const StringBuilder&) = delete;
    StringBuilder& operator=(const StringBuilder&) = delete;
    ~StringBuilder();

    /// These functions append a part and return the builder, so that calls can be chained. A part that cannot
    /// be formatted, for example because of a character outside of the character set of the locale, is not
    /// appended.
    StringBuilder& printf(const char* format, ...) ZARIP_PRINTF(2, 3);
    StringBuilder& vprintf(const char* format, va_list args) ZARIP_PRINTF(2, 0);

    std::string ToString() const;

private:
    std::ostringstream _stream;
};

}  // namespace zarip::core
