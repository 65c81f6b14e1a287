#pragma once

#include <zarip/osa/Export.h>

namespace zarip::osa {

/// Counters shared between threads. *Thread-safe*: all of a process take turns on one mutex,
/// "InterlockedMutex".
class ZARIP_EXPORT Interlocked {
public:
    /// Adds one and returns the new value.
    static int Increment(int& value);

    /// Takes one off and returns the new value.
    static int Decrement(int& value);
};

}  // namespace zarip::osa
