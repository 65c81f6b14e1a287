// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>

namespace zarip::osa {

/// Counters shared between threads. *Thread-safe*, without a lock: a child can use them whatever other
/// threads of its parent did when it was forked. What a thread wrote before it changed a counter is visible
/// to those that change the counter after it.
class ZARIP_EXPORT Interlocked {
public:
    /// Adds one and returns the new value.
    static int Increment(int& value);

    /// Takes one off and returns the new value.
    static int Decrement(int& value);
};

}  // namespace zarip::osa
