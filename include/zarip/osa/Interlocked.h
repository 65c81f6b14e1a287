// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>

namespace zarip::osa {

/// Counters shared between threads. *Thread-safe*. No lock is used, so a forked child can use them whatever
/// the other threads of its parent did during the fork. Everything that a thread has written before it
/// changes a counter is visible to every thread that changes the counter later.
class ZARIP_EXPORT Interlocked {
public:
    /// Adds one and returns the new value.
    static int Increment(int& value);

    /// Subtracts one and returns the new value.
    static int Decrement(int& value);
};

}  // namespace zarip::osa
