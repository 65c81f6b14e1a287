// SPDX-License-Identifier: MIT

#include "zarip/core/StringBuilder.h"

#include <algorithm>
#include <cstdio>
#include <memory>

namespace zarip::core {

StringBuilder::StringBuilder() = default;

StringBuilder::StringBuilder(const std::string& initial) : _stream(initial, std::ios_base::ate) {}

StringBuilder::~StringBuilder() = default;

StringBuilder& StringBuilder::printf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    try {
        vprintf(format, args);
    } catch (...) {
        va_end(args);
        throw;
    }
    va_end(args);
    return *this;
}

StringBuilder& StringBuilder::vprintf(const char* format, va_list args) {
    char buffer[128];
    va_list copy;
    va_copy(copy, args);
    const int result = std::vsnprintf(buffer, sizeof buffer, format, copy);
    va_end(copy);
    if (result < 0) {
        return *this;
    }
    const auto length = static_cast<std::size_t>(result);
    if (length < sizeof buffer) {
        _stream.write(buffer, result);
        return *this;
    }
    const std::unique_ptr<char[]> grown(new char[length + 1]);
    va_copy(copy, args);
    const int again = std::vsnprintf(grown.get(), length + 1, format, copy);
    va_end(copy);
    _stream.write(grown.get(), std::clamp(again, 0, result));
    return *this;
}

std::string StringBuilder::ToString() const {
    return _stream.str();
}

}  // namespace zarip::core
