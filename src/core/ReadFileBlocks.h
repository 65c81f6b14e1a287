// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include "osa/ReadBlocks.h"
#include "zarip/osa/Exception.h"

namespace zarip::core {

using osa::ReadBlocks;

/// The same, for callers to whom every failure is one.
template <class Take>
void ReadFileBlocks(const std::string& path, Take take) {
    if (!ReadBlocks(path.c_str(), take)) {
        throw osa::Exception("File '" + path + "' does not exist");
    }
}

}  // namespace zarip::core
