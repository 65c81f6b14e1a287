// SPDX-License-Identifier: MIT

#pragma once

#include <sched.h>
#include <sys/mount.h>

#include <thread>

namespace zarip::test {

/// Runs an action on a thread whose mounts no other thread sees, and which end with it. False, without having
/// run it, if that is not permitted.
template <class Action>
bool WithOwnMounts(Action action) {
    bool isPermitted = false;
    std::thread([&] {
        isPermitted =
            ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
        if (isPermitted) {
            action();
        }
    }).join();
    return isPermitted;
}

}  // namespace zarip::test
