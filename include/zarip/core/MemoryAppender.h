// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <vector>

#include <zarip/core/ILogAppender.h>
#include <zarip/osa/Mutex.h>

namespace zarip::core {

/// Keeps the messages of all records in memory, without thread, logger and level. Each message is cut after
/// 1023 characters. The list grows without limit until `Clear` is called. *Thread-safe*.
class ZARIP_EXPORT MemoryAppender : public ILogAppender {
public:
    MemoryAppender();
    MemoryAppender(const MemoryAppender&) = delete;
    MemoryAppender& operator=(const MemoryAppender&) = delete;
    ~MemoryAppender() override;

    int GetMessageCount() const;

    /// Returns the message with this index, from 0. Throws `std::out_of_range`.
    std::string GetMessage(int index) const;

    void Clear();

    void AppendV(Logger::LogLevel level, const char* threadName, const char* loggerName, const char* format,
                 va_list args) const override ZARIP_PRINTF(5, 0);

private:
    mutable osa::Mutex _mutex;
    mutable std::vector<std::string> _messages ZARIP_GUARDED_BY(_mutex);
};

}  // namespace zarip::core
