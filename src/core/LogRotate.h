// SPDX-License-Identifier: MIT

#pragma once

#include <string>

namespace zarip::core {

/// The edit behind `Logger::ModifyLogRotateConf`, on any pair of files: `configuration`, and `temporary`,
/// which is created or emptied and gone afterwards (unless the configuration could not be opened). Both paths
/// go through the shell.
void EditLogRotateConf(const std::string& logFile, const std::string& owner, const std::string& configuration,
                       const std::string& temporary);

}  // namespace zarip::core
