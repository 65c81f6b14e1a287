// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/core/IniFile.h>
#include <zarip/core/Logger.h>

/// Logs to standard output: warnings of the library, and the messages of the process itself with the logger
/// that this returns.
inline zarip::core::Logger* LogToStdout(const char* name) {
    using zarip::core::Logger;
    Logger::SetLevelDefault(Logger::kInformation, false);
    Logger* const logger = Logger::GetLogger(name);
    zarip::core::IniFile settings;
    settings.SetValue("log", "log.stdout", "true");
    Logger::ConfigureLogging(settings, "log");
    return logger;
}
