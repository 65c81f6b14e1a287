#include "osa/FileCalls.h"

#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

namespace zarip::osa {

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

ssize_t WriteQuietly(int fd, const char* data, std::size_t length) {
    // The signal is for this thread, so it is blocked meanwhile and taken away. It comes also with a part
    // that has been written.
    sigset_t pipe;
    sigset_t pending;
    sigset_t old;
    ::sigemptyset(&pipe);
    ::sigaddset(&pipe, SIGPIPE);
    ::sigpending(&pending);
    ::pthread_sigmask(SIG_BLOCK, &pipe, &old);
    const ssize_t result = ::write(fd, data, length);
    const int error = errno;
    const bool isWhole = result >= 0 && static_cast<std::size_t>(result) == length;
    if (!isWhole && ::sigismember(&pending, SIGPIPE) == 0) {
        const timespec none{};
        while (::sigtimedwait(&pipe, nullptr, &none) < 0 && errno == EINTR) {
        }
    }
    ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
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
