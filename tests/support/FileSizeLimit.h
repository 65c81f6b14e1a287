// SPDX-License-Identifier: MIT

#pragma once

#include <signal.h>
#include <sys/resource.h>

namespace zarip::test {

/// A disk that fills up: for the length of a scope no file of the process grows beyond a number of bytes.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        ::getrlimit(RLIMIT_FSIZE, &_old);
        rlimit limit = _old;
        limit.rlim_cur = bytes;
        _oldHandler = ::signal(SIGXFSZ, SIG_IGN);
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &_old);
        ::signal(SIGXFSZ, _oldHandler);
    }

private:
    rlimit _old{};
    void (*_oldHandler)(int) = nullptr;
};

}  // namespace zarip::test
