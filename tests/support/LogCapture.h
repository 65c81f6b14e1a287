// SPDX-License-Identifier: MIT

#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include <zarip/core/Logger.h>
#include <zarip/core/MemoryAppender.h>

namespace zarip::test {

/// Keeps the messages of all registered loggers for the length of a scope, and sets their level.
/// *Thread-safe*: other threads may log while the test looks.
class LogCapture {
public:
    explicit LogCapture(core::Logger::LogLevel level = core::Logger::kTrace) {
        core::Logger::AddAppender(&_appender, false);
        core::Logger::SetLevelDefault(level, true);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture() {
        core::Logger::RemoveAppender(&_appender);
        core::Logger::SetLevelDefault(core::Logger::kError, true);
    }

    std::vector<std::string> Messages() const {
        std::vector<std::string> messages;
        for (int i = 0, count = _appender.GetMessageCount(); i < count; ++i) {
            messages.push_back(_appender.GetMessage(i));
        }
        return messages;
    }

    /// How many messages contain the text.
    int Count(const std::string& text) const {
        const auto messages = Messages();
        return static_cast<int>(std::count_if(
            messages.begin(), messages.end(),
            [&](const std::string& message) { return message.find(text) != std::string::npos; }));
    }

    bool Contains(const std::string& text) const { return Count(text) > 0; }

private:
    core::MemoryAppender _appender;
};

}  // namespace zarip::test
