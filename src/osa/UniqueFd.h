// SPDX-License-Identifier: MIT

#pragma once

#include <unistd.h>

#include <utility>

namespace zarip::osa {

/// Owns a file descriptor.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : _fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : _fd(std::exchange(other._fd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(_fd, other._fd);
        return *this;
    }
    ~UniqueFd() {
        if (_fd >= 0) {
            ::close(_fd);
        }
    }

    int Get() const { return _fd; }
    bool IsValid() const { return _fd >= 0; }

    /// The caller owns it from now on.
    int Release() { return std::exchange(_fd, -1); }

private:
    int _fd = -1;
};

}  // namespace zarip::osa
