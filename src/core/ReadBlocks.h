#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string>
#include <string_view>

#include "osa/UniqueFd.h"
#include "zarip/osa/Exception.h"

namespace zarip::core {

/// Hands a file to `take`, block by block; false when it cannot be opened or read to its end.
template <class Take>
bool ReadBlocks(const char* path, Take take) {
    const osa::UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
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

/// The same, for callers to whom every failure is one.
template <class Take>
void ReadFileBlocks(const std::string& path, Take take) {
    if (!ReadBlocks(path.c_str(), take)) {
        throw osa::Exception("File '" + path + "' does not exist");
    }
}

}  // namespace zarip::core
