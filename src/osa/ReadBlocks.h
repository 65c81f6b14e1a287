#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string_view>

#include "osa/UniqueFd.h"

namespace zarip::osa {

/// Hands a file to `take`, block by block; false, with errno, when it cannot be opened or read to its end.
template <class Take>
bool ReadBlocks(const char* path, Take take) {
    const UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
    if (!file.IsValid()) {
        return false;
    }
    char block[16'384];
    for (;;) {
        const ssize_t length = ::read(file.Get(), block, sizeof block);
        if (length > 0) {
            take(std::string_view(block, static_cast<std::size_t>(length)));
        } else if (length == 0) {
            return true;
        } else if (errno != EINTR) {
            return false;
        }
    }
}

}  // namespace zarip::osa
