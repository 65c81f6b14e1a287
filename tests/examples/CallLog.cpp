// SPDX-License-Identifier: MIT

// Preloaded into a program: writes down which of its calls change what the disk holds, in the file that
// CALL_LOG names.

#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

void Log(const char* call) {
    const int file = ::open(::getenv("CALL_LOG"), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (::write(file, call, ::strlen(call)) < 0) {
        ::abort();
    }
    ::close(file);
}

}  // namespace

extern "C" {

int fsync(int fd) {
    struct stat status {};
    Log(::fstat(fd, &status) == 0 && S_ISDIR(status.st_mode) ? "folder " : "file ");
    return ::fdatasync(fd);
}

int mkdirat(int folder, const char* path, mode_t mode) {
    const auto next = reinterpret_cast<int (*)(int, const char*, mode_t)>(::dlsym(RTLD_NEXT, "mkdirat"));
    const int result = next(folder, path, mode);
    Log(result == 0 ? "mkdir " : "");
    return result;
}

int renameat(int from, const char* old, int to, const char* name) {
    Log("rename ");
    const auto next =
        reinterpret_cast<int (*)(int, const char*, int, const char*)>(::dlsym(RTLD_NEXT, "renameat"));
    return next(from, old, to, name);
}

}  // extern "C"
