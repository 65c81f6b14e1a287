// SPDX-License-Identifier: MIT

#include "zarip/osa/Exception.h"

#include <cstdarg>
#include <cstdio>
#include <memory>

namespace zarip::osa {

const std::string Exception::kUnimplemented = "unimplemented";

namespace {

void ReportFailedConstruction() {
    std::fputs("ERROR: Exception::Exception", stdout);
}

}  // namespace

Exception::Exception(const std::string& message) {
    try {
        _message = message;
    } catch (...) {
        ReportFailedConstruction();
    }
}

Exception::Exception(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list measuring;
    va_copy(measuring, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, measuring);
    va_end(measuring);
    try {
        if (length >= 0) {
            const auto size = static_cast<std::size_t>(length) + 1;
            const std::unique_ptr<char[]> buffer(new char[size]);
            const int written = std::vsnprintf(buffer.get(), size, format, arguments);
            if (written >= 0 && written <= length) {
                _message.append(buffer.get());
            }
        }
    } catch (...) {
        ReportFailedConstruction();
    }
    va_end(arguments);
}

Exception::Exception(const Exception& other) : std::exception(other) {
    try {
        _message = other._message;
    } catch (...) {
        ReportFailedConstruction();
    }
}

Exception& Exception::operator=(const Exception& other) = default;

Exception::~Exception() = default;

const char* Exception::what() const noexcept {
    return _message.c_str();
}

void Exception::SetLocation(const char* file, unsigned int line) {
    _file = file != nullptr ? file : "";
    _line = line;
}

}  // namespace zarip::osa
