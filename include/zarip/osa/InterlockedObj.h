// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>
#include <zarip/osa/Mutex.h>

namespace zarip::osa {

/// Counters shared between threads, guarded by a mutex of this object. *Thread-safe*.
class ZARIP_EXPORT InterlockedObj {
public:
    InterlockedObj();

    int Increment(int& value) const;
    int Decrement(int& value) const;

    /// These functions hold the mutex of the object during several operations.
    void Lock() const ZARIP_ACQUIRE(_mutex);
    void Unlock() const ZARIP_RELEASE(_mutex);

private:
    mutable Mutex _mutex;
};

}  // namespace zarip::osa
