// SPDX-License-Identifier: MIT

#pragma once

#include <sys/types.h>
#include <string>
#include <vector>

#include "osa/UniqueFd.h"
#include "zarip/osa/Mutex.h"
#include "zarip/osa/Process.h"

namespace zarip::osa {

constexpr unsigned int kKillTimeoutMs = 5'000;

struct ZARIP_HIDDEN Process::Impl {
    void Start(const std::string& program, const std::vector<std::string>& arguments, const Options& options);
    UniqueFd Connect(const Redirect& redirect, int stream);
    bool CheckEnded();
    void Reap();
    int Send(int signal) ZARIP_REQUIRES(mutex);

    Mutex mutex{"Process"};
    pid_t pid = -1;
    UniqueFd pidFd;  // invalid before Linux 5.3
    bool isGroup = false;
    UniqueFd pipes[3] ZARIP_GUARDED_BY(mutex);
    bool ended ZARIP_GUARDED_BY(mutex) = false;
    bool reaped ZARIP_GUARDED_BY(mutex) = false;
    int status ZARIP_GUARDED_BY(mutex) = -1;
    int signal ZARIP_GUARDED_BY(mutex) = 0;
};

}  // namespace zarip::osa
