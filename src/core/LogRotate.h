// SPDX-License-Identifier: MIT

#pragma once

#include <string>

namespace zarip::core {

/// Does the work of `Logger::ModifyLogRotateConf` on any pair of files. `temporary` is created or emptied,
/// and removed at the end (unless `configuration` could not be opened). Both paths are passed to the shell.
void EditLogRotateConf(const std::string& logFile, const std::string& owner, const std::string& configuration,
                       const std::string& temporary);

}  // namespace zarip::core
