// SPDX-License-Identifier: MIT

#include "osa/FileCalls.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace zarip::osa {

namespace {

bool IsPending(int signal) {
    sigset_t pending;
    ::sigpending(&pending);
    return ::sigismember(&pending, signal) == 1;
}

#ifdef RWF_NOSIGNAL
constexpr int kNoSignal = RWF_NOSIGNAL;
#else
constexpr int kNoSignal = 0x100;
#endif

bool IsPipe(int fd) {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode);
}

/// Writes with a flag that Linux has since 6.18. If the system does not support it, or not for this file, it
/// writes nothing and returns false. After that happened for a pipe, the flag is not tried again.
bool WriteWithFlag(int fd, const char* data, std::size_t length, ssize_t& result) {
    static std::atomic<bool> s_isKnown{true};
    if (!s_isKnown) {
        return false;
    }
    const iovec part = {const_cast<char*>(data), length};
    result = ::pwritev2(fd, &part, 1, -1, kNoSignal);
    if (result >= 0 || errno != EOPNOTSUPP) {
        return true;
    }
    s_isKnown = !IsPipe(fd);
    return false;
}

}  // namespace

UniqueFd OpenAtOnce(const char* path, int flags, mode_t mode) {
    UniqueFd file(::open(path, flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, mode));
    if (file.IsValid()) {
        const int now = ::fcntl(file.Get(), F_GETFL);
        if (now < 0 || ::fcntl(file.Get(), F_SETFL, now & ~O_NONBLOCK) < 0) {
            return UniqueFd();
        }
    }
    return file;
}

UniqueFd OpenRegular(const char* path, int flags, struct stat& status) {
    UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | flags));
    if (!file.IsValid() || ::fstat(file.Get(), &status) != 0) {
        return UniqueFd();
    }
    if (!S_ISREG(status.st_mode)) {
        file = UniqueFd();
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    }
    return file;
}

ssize_t WriteQuietly(int fd, const char* data, std::size_t length) {
    ssize_t result = 0;
    if (WriteWithFlag(fd, data, length, result)) {
        return result;
    }
    // SIGPIPE is directed at this thread, so it is blocked during the call and removed afterwards. It comes
    // also after a part has been written. A signal that was pending before stays; it can only be pending
    // before if the caller had blocked it.
    sigset_t pipe;
    sigset_t old;
    ::sigemptyset(&pipe);
    ::sigaddset(&pipe, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipe, &old);
    const bool wasBlocked = ::sigismember(&old, SIGPIPE) == 1;
    const bool wasPending = wasBlocked && IsPending(SIGPIPE);
    result = ::write(fd, data, length);
    const int error = errno;
    const bool isWhole = result >= 0 && static_cast<std::size_t>(result) == length;
    if (!isWhole && !wasPending) {
        const timespec none{};
        while (::sigtimedwait(&pipe, nullptr, &none) < 0 && errno == EINTR) {
        }
    }
    if (!wasBlocked) {
        ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
    }
    errno = error;
    return result;
}

bool WriteAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t result = WriteQuietly(fd, text.data(), text.size());
        if (result < 0 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(result > 0 ? static_cast<std::size_t>(result) : 0);
    }
    return true;
}

bool Synchronise(int fd) {
    int result = 0;
    do {
        result = ::fsync(fd);
    } while (result != 0 && errno == EINTR);
    return result == 0 || errno == EINVAL || errno == EROFS || errno == ENOTSUP;
}

bool Close(UniqueFd file) {
    return ::close(file.Release()) == 0 || errno == EINTR;
}

}  // namespace zarip::osa
