// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include "osa/ReadBlocks.h"
#include "zarip/osa/Exception.h"

namespace zarip::core {

using osa::ReadBlocks;

/// Calls `take` for each block of a file. Every failure is reported as a missing file.
template <class Take>
void ReadFileBlocks(const std::string& path, Take take) {
    if (!ReadBlocks(path.c_str(), take)) {
        throw osa::Exception("File '" + path + "' does not exist");
    }
}

}  // namespace zarip::core
