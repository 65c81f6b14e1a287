// SPDX-License-Identifier: MIT

#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string_view>

#include "osa/UniqueFd.h"

namespace zarip::osa {

/// Calls `take` with the rest of a file, block by block. False, with errno, if the file cannot be read to its
/// end.
template <class Take>
bool ReadBlocks(int file, Take take) {
    char block[16'384];
    for (;;) {
        const ssize_t length = ::read(file, block, sizeof block);
        if (length > 0) {
            take(std::string_view(block, static_cast<std::size_t>(length)));
        } else if (length == 0) {
            return true;
        } else if (errno != EINTR) {
            return false;
        }
    }
}

/// The same for a whole file. False also if the file cannot be opened.
template <class Take>
bool ReadBlocks(const char* path, Take take) {
    const UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
    return file.IsValid() && ReadBlocks(file.Get(), take);
}

}  // namespace zarip::osa
