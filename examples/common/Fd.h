// SPDX-License-Identifier: MIT

#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <zarip/osa/Exception.h>

/// Returns the result of a system call, or throws its error if that is -1.
inline int Check(int result, const char* call) {
    if (result < 0) {
        throw zarip::osa::Exception(std::string(call) + ": " + std::strerror(errno));
    }
    return result;
}

/// Owns a descriptor, or -1 for none.
class Fd {
public:
    explicit Fd(int fd) : _fd(fd) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() {
        if (_fd >= 0) {
            ::close(_fd);
        }
    }

    int Get() const { return _fd; }

private:
    const int _fd;
};
