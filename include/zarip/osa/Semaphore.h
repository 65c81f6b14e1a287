// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

#include <zarip/osa/Export.h>
#include <zarip/osa/Timeout.h>

namespace zarip::osa {

/// A named counting semaphore. *Thread-safe*. It may be destroyed as soon as the last waiter has returned,
/// even if the `Release` that woke the waiter has not returned yet.
///
/// Time-outs are in milliseconds as in `Mutex`. Failures throw `LockException`.
class ZARIP_EXPORT Semaphore {
public:
    /// @param name  *not owned*, never copied, must outlive the semaphore.
    /// @param maxCount  the largest number of units. Note that it precedes `initialCount`.
    /// @param initialCount  the number of units at first.
    Semaphore(const char* name, unsigned short maxCount, unsigned short initialCount);
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;
    virtual ~Semaphore();

    /// Takes one unit. Returns false if the time-out passes before a unit is free.
    bool TryLock(unsigned int timeoutMs);

    /// Takes one unit. Throws "Semaphore::Lock timeout after <timeoutMs>ms" (`LockTimeout`) if the time-out
    /// passes before a unit is free.
    void Lock(unsigned int timeoutMs = kWaitForEver);

    /// Gives one unit back. Throws "maxCount was reached" (`LockInvalid`) if the semaphore has `maxCount`
    /// units already.
    void Release();

private:
    struct Context;
    std::unique_ptr<Context> _context;
};

}  // namespace zarip::osa
