// SPDX-License-Identifier: MIT

#include "osa/ProcessStart.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace zarip::osa {

namespace {

constexpr unsigned int kFirstOther = 3;
constexpr rlim_t kUsualMaxDescriptors = 1U << 20U;  // fs.nr_open

#ifdef SYS_close_range
constexpr long kCloseRange = SYS_close_range;
#else
constexpr long kCloseRange = 436;
#endif
constexpr unsigned int kCloseOnExec = 4;  // CLOSE_RANGE_CLOEXEC

void CloseOnExec(unsigned int fd) {
    if (fd >= kFirstOther) {
        ::fcntl(static_cast<int>(fd), F_SETFD, FD_CLOEXEC);
    }
}

/// Uses system calls only, as all code in the new process, because opendir allocates. False if the list is
/// incomplete.
bool CloseListedOnExec() {
    const int folder = ::open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) {
        return false;
    }
    constexpr long kLengthAt = 16;  // of linux_dirent64
    constexpr long kNameAt = 19;
    alignas(8) char entries[1024];
    long size = 0;
    while ((size = ::syscall(SYS_getdents64, folder, entries, sizeof entries)) > 0) {
        for (long at = 0; at < size;) {
            unsigned int fd = 0;
            for (const char* digit = entries + at + kNameAt; *digit >= '0' && *digit <= '9'; ++digit) {
                fd = fd * 10 + static_cast<unsigned int>(*digit - '0');
            }
            CloseOnExec(fd);
            unsigned short length = 0;
            std::memcpy(&length, entries + at + kLengthAt, sizeof length);
            at += length;
        }
    }
    return size == 0;
}

/// Makes the system close all descriptors except the standard streams when the program is executed.
void CloseOthersOnExec() {
    if (::syscall(kCloseRange, kFirstOther, ~0U, kCloseOnExec) == 0 || CloseListedOnExec()) {
        return;
    }
    // Before Linux 5.11 and without /proc it tries every number that a process can have, which is slow. A
    // descriptor may be above a limit that was lowered later.
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t end = std::clamp<rlim_t>(limit.rlim_max, kUsualMaxDescriptors, INT_MAX);
    for (unsigned int fd = kFirstOther; fd < end; ++fd) {
        CloseOnExec(fd);
    }
}

[[noreturn]] void GiveUp(const ProcessPlan& plan, bool isFolder, int error) {
    const StartFailure failure = {isFolder, error};
    const ssize_t written = ::write(plan.report, &failure, sizeof failure);
    static_cast<void>(written);
    ::_exit(127);
}

/// As execvp, but does not pass other files to a shell.
int Execute(const ProcessPlan& plan) {
    int result = ENOENT;
    for (const char* const* candidate = plan.candidates; *candidate != nullptr; ++candidate) {
        ::execve(*candidate, plan.arguments, plan.environment);
        if (errno == EACCES) {
            result = EACCES;
        } else if (errno != ENOENT && errno != ENOTDIR && errno != ENAMETOOLONG) {
            return errno;
        }
    }
    return result;
}

[[noreturn]] void Run(ProcessPlan& plan) {
    plan.isDone = true;
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal) {
        ::sigaction(signal, &standard, nullptr);
    }
    if (plan.ownGroup) {
        ::setpgid(0, 0);
    }
    if (plan.folder != nullptr && ::chdir(plan.folder) != 0) {
        GiveUp(plan, true, errno);
    }
    for (int stream = 0; stream < 3; ++stream) {
        if (plan.streams[stream] >= 0 && ::dup2(plan.streams[stream], stream) < 0) {
            GiveUp(plan, false, errno);
        }
    }
    CloseOthersOnExec();
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    GiveUp(plan, false, Execute(plan));
}

/// A function of its own, because a process that shares the memory must not change the variables of the
/// caller.
__attribute__((noinline)) pid_t Fork(ProcessPlan& plan) {
    const pid_t pid = ::vfork();
    if (pid == 0) {
        Run(plan);
    }
    return pid;
}

}  // namespace

pid_t StartProcess(ProcessPlan& plan) {
    // A signal handler of this process must not run in the new one, and this thread must not be cancelled
    // meanwhile.
    sigset_t all;
    sigset_t old;
    int cancelState = 0;
    ::sigfillset(&all);
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
    ::pthread_sigmask(SIG_SETMASK, &all, &old);
    const pid_t pid = Fork(plan);
    const int error = errno;
    ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
    ::pthread_setcancelstate(cancelState, nullptr);
    errno = error;
    return pid;
}

}  // namespace zarip::osa
