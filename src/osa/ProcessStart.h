// SPDX-License-Identifier: MIT

#pragma once

#include <sys/types.h>

namespace zarip::osa {

/// All that the new process needs, made before there is one: in there nothing may allocate or take a lock,
/// which another thread might hold at that moment.
struct ProcessPlan {
    const char* const* candidates;  // the program's paths, tried in order; ends with null
    char* const* arguments;
    char* const* environment;
    const char* folder;  // or null
    int streams[3];      // 3 and above, or -1 to stay; the last may be 1
    int report;          // 3 and above, closed when a program is executed; a failure is written there
    bool ownGroup;

    /// Set by the new process where its memory is ours: then `StartProcess` returned when it was done, and a
    /// failure that is to be reported has been. Emulators and sanitizers give it memory of its own and run
    /// on.
    volatile bool isDone;
};

struct StartFailure {
    bool isFolder;
    int error;
};

/// Makes the process; -1 with errno. It shares the memory until it executes the program, so nothing is
/// copied, and no handler of pthread_atfork runs.
pid_t StartProcess(ProcessPlan& plan);

}  // namespace zarip::osa
