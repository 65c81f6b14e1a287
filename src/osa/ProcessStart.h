// SPDX-License-Identifier: MIT

#pragma once

#include <sys/types.h>

namespace zarip::osa {

/// Everything that the new process needs. It is made before, because the new process must not allocate or
/// take a lock, which another thread may hold at that moment.
struct ProcessPlan {
    const char* const* candidates;  // the program's paths, tried in order; ends with null
    char* const* arguments;
    char* const* environment;
    const char* folder;  // or null
    int streams[3];      // 3 and above, or -1 to stay; the last may be 1
    int report;          // 3 and above, closed when a program is executed; a failure is written there
    bool ownGroup;

    /// Set by the new process if it shares our memory. `StartProcess` then returns after the new process is
    /// done, and every failure has been reported. Under emulators and sanitizers the new process has memory
    /// of its own, and `StartProcess` returns earlier.
    volatile bool isDone;
};

struct StartFailure {
    bool isFolder;
    int error;
};

/// Makes the process; -1 with errno. The process shares the memory until it executes the program, so nothing
/// is copied and no handler of pthread_atfork runs.
pid_t StartProcess(ProcessPlan& plan);

}  // namespace zarip::osa
