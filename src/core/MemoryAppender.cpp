// SPDX-License-Identifier: MIT

#include "zarip/core/MemoryAppender.h"

#include <cstdio>
#include <stdexcept>

#include "zarip/core/NullAppender.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::core {

MemoryAppender::MemoryAppender() : _mutex("MemoryAppender") {}

MemoryAppender::~MemoryAppender() = default;

int MemoryAppender::GetMessageCount() const {
    const osa::MutexAutoLock lock(&_mutex);
    return static_cast<int>(_messages.size());
}

std::string MemoryAppender::GetMessage(int index) const {
    const osa::MutexAutoLock lock(&_mutex);
    return _messages.at(static_cast<std::size_t>(index));
}

void MemoryAppender::Clear() {
    const osa::MutexAutoLock lock(&_mutex);
    _messages.clear();
}

void MemoryAppender::AppendV(Logger::LogLevel /*level*/, const char* /*threadName*/,
                             const char* /*loggerName*/, const char* format, va_list args) const {
    char buffer[1024];
    va_list copy;
    va_copy(copy, args);
    if (std::vsnprintf(buffer, sizeof buffer, format, copy) < 0) {
        buffer[0] = '\0';
    }
    va_end(copy);
    const osa::MutexAutoLock lock(&_mutex);
    _messages.emplace_back(buffer);
}

NullAppender::NullAppender() = default;
NullAppender::~NullAppender() = default;

void NullAppender::AppendV(Logger::LogLevel /*level*/, const char* /*threadName*/, const char* /*loggerName*/,
                           const char* /*format*/, va_list /*args*/) const {}

}  // namespace zarip::core
